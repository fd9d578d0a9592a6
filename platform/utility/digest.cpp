#include "platform/utility/digest.h"

#include <openssl/evp.h>

#include <utility>

namespace kavro {

void Digest::Release::operator()(evp_md_ctx_st* state) const {
    EVP_MD_CTX_free(state);
}

Digest::Digest(Kind kind) : context(EVP_MD_CTX_new()) {
    const EVP_MD* const algorithm = kind == Kind::kMd5 ? EVP_md5() : EVP_sha256();
    if (context != nullptr && EVP_DigestInit_ex(context.get(), algorithm, nullptr) != 1) {
        context.reset();
    }
}

Digest::~Digest() = default;

void Digest::add(const void* data, std::size_t size) {
    if (context != nullptr && EVP_DigestUpdate(context.get(), data, size) != 1) {
        context.reset();
    }
}

std::vector<unsigned char> Digest::finish() {
    const auto finished = std::move(context);
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (finished == nullptr || EVP_DigestFinal_ex(finished.get(), bytes, &size) != 1) {
        return {};
    }
    return {bytes, bytes + size};
}

std::string Digest::finishAsText() {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : finish()) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

}  // namespace kavro
