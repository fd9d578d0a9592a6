// chkFileMd5: the one place of the device's libraries that knows OpenSSL.

#include <fcntl.h>
#include <openssl/evp.h>

#include <memory>
#include <vector>

#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/file_io.h"

namespace COMMON_YR {
namespace {

constexpr std::size_t kBlock = 256 << 10;
constexpr std::size_t kMd5Bytes = 16;

struct ContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// The md5 of what is left to read of the file; empty on failure.
std::vector<unsigned char> md5Of(int fd, const CancelHold& hold) {
    const std::unique_ptr<EVP_MD_CTX, ContextDeleter> context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) {
        return {};
    }
    std::vector<char> block(kBlock);
    for (;;) {
        const ssize_t count = kavro::readFully(fd, block.data(), block.size());
        if (count < 0 ||
            EVP_DigestUpdate(context.get(), block.data(), static_cast<std::size_t>(count)) != 1) {
            return {};
        }
        if (static_cast<std::size_t>(count) < block.size()) {
            break;
        }
        hold.checkpoint();
    }
    std::vector<unsigned char> digest(kMd5Bytes);
    return EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1 ? digest
                                                                          : std::vector<unsigned char>();
}

}  // namespace

bool chkFileMd5(const std::string& path, std::string md5Text) {
    const CancelHold hold;
    std::vector<unsigned char> expected;
    if (!_xatoi(md5Text, expected) || expected.size() != kMd5Bytes) {
        return false;
    }
    const kavro::FileDescriptor file = kavro::openToRead(path);
    if (!file.valid()) {
        return false;
    }
    posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return md5Of(file.get(), hold) == expected;
}

}  // namespace COMMON_YR
