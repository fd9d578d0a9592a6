// A message digest that is fed piece by piece. Apart from package/internal/signing.cpp the one place that knows OpenSSL.
#pragma once

#include <cstddef>
#include <functional>
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
    // Adds what is left to read of an open file, and calls `between` after each block. False with errno set when it cannot
    // be read.
    [[nodiscard]] bool addRest(int fd, const std::function<void()>& between = {});

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
