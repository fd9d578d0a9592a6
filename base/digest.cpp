#include "base/digest.h"

#include <openssl/evp.h>

#include <utility>

#include "base/file_io.h"
#include "base/hex_digit.h"

namespace kavro {

constexpr std::size_t kBlockBytes = 256 << 10;

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

bool Digest::addRest(int fd, const std::function<void()>& between) {
    std::vector<char> block(kBlockBytes);
    for (;;) {
        const ssize_t count = readFully(fd, block.data(), block.size());
        if (count < 0) {
            return false;
        }
        add(block.data(), static_cast<std::size_t>(count));
        if (static_cast<std::size_t>(count) < block.size()) {
            return true;
        }
        if (between) {
            between();
        }
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
    return hexText(finish());
}

}  // namespace kavro
