// chkFileMd5.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "base/block_reader.h"
#include "base/digest.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"

namespace COMMON_YR {
namespace {

constexpr off_t kReadAheadFrom = 4 << 20;  // a thread for less costs more than it brings
constexpr std::size_t kMd5Bytes = 16;

// The md5 of what is left to read of the file; empty on failure.
std::vector<unsigned char> md5Of(int fd, const CancelHold& hold) {
    kavro::Digest digest(kavro::Digest::Kind::kMd5);
    return digest.addRest(fd, [&hold] { hold.checkpoint(); }) ? digest.finish()
                                                              : std::vector<unsigned char>();
}

// The md5 of a file of that size, read on another thread meanwhile; empty on failure, and when it has grown. A package was copied past the cache,
// so it comes from storage.
std::vector<unsigned char> md5OfLarge(int fd, off_t size, const CancelHold& hold) {
    const auto readAt = [fd](char* buffer, std::size_t length, long long offset) {
        return kavro::readFullyAt(fd, buffer, length, static_cast<off_t>(offset));
    };
    kavro::Digest digest(kavro::Digest::Kind::kMd5);
    kavro::BlockReader reader(readAt, size);
    while (const auto* const block = reader.next()) {
        if (block->count != static_cast<long>(block->size)) {
            return {};
        }
        digest.add(block->data, block->size);
        // The reads leave the position alone; in /proc/self/fdinfo it tells how far the digest is.
        (void)lseek(fd, block->offset + block->count, SEEK_SET);
        hold.checkpoint();
    }
    char more = 0;
    return kavro::readFullyAt(fd, &more, 1, size) == 0 ? digest.finish() : std::vector<unsigned char>();
}

// 0 for what has no size of its own.
off_t sizeOf(int fd) {
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : 0;
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
    const off_t size = sizeOf(file.get());
    return (size < kReadAheadFrom ? md5Of(file.get(), hold) : md5OfLarge(file.get(), size, hold)) == expected;
}

}  // namespace COMMON_YR
