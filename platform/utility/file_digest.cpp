// chkFileMd5.

#include <fcntl.h>

#include <vector>

#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/digest.h"
#include "platform/utility/file_io.h"

namespace COMMON_YR {
namespace {

constexpr std::size_t kBlock = 256 << 10;
constexpr std::size_t kMd5Bytes = 16;

// The md5 of what is left to read of the file; empty on failure.
std::vector<unsigned char> md5Of(int fd, const CancelHold& hold) {
    kavro::Digest digest(kavro::Digest::Kind::kMd5);
    std::vector<char> block(kBlock);
    for (;;) {
        const ssize_t count = kavro::readFully(fd, block.data(), block.size());
        if (count < 0) {
            return {};
        }
        digest.add(block.data(), static_cast<std::size_t>(count));
        if (static_cast<std::size_t>(count) < block.size()) {
            return digest.finish();
        }
        hold.checkpoint();
    }
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
