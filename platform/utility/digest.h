// A message digest that is fed piece by piece. The one place of the device's libraries that knows OpenSSL.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct evp_md_ctx_st;

namespace kavro {

class Digest {
  public:
    enum class Kind { kMd5, kSha256 };

    explicit Digest(Kind kind);
    ~Digest();
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    void add(const void* data, std::size_t size);

    // The digest of all that was added, once; empty when it could not be computed, for want of memory.
    std::vector<unsigned char> finish();
    // The same as hexadecimal digits, lower case.
    std::string finishAsText();

  private:
    struct Release {
        void operator()(evp_md_ctx_st* state) const;
    };
    std::unique_ptr<evp_md_ctx_st, Release> context;  // null after a failure, and when finished
};

}  // namespace kavro
