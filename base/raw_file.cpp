#include "base/raw_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdint>

#include "base/file_io.h"

namespace kavro {

bool RawFile::open(const std::string& path, int flags) {
    descriptor = FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC));
    return descriptor.valid();
}

bool RawFile::openDirect(const std::string& path, int flags) {
    return open(path, flags | O_DIRECT) || (errno == EINVAL && open(path, flags));
}

bool RawFile::status(struct stat& status) const {
    return ::fstat(descriptor.get(), &status) == 0;
}

long long RawFile::size() const {
    struct stat now {};
    if (!status(now)) {
        return -1;
    }
    if (S_ISREG(now.st_mode)) {
        return now.st_size;
    }
    std::uint64_t bytes = 0;
    if (!S_ISBLK(now.st_mode) || ::ioctl(descriptor.get(), BLKGETSIZE64, &bytes) != 0) {
        return -1;
    }
    return static_cast<long long>(bytes);
}

long RawFile::readAt(void* buffer, std::size_t size, long long offset) const {
    auto* const bytes = static_cast<char*>(buffer);
    const auto read = [&] { return readFullyAt(descriptor.get(), bytes, size, static_cast<off_t>(offset)); };
    const ssize_t count = read();
    return count < 0 && errno == EINVAL && leaveDirect(descriptor.get()) ? read() : count;
}

bool RawFile::writeAt(const void* data, std::size_t size, long long offset) const {
    return writeDirectAt(descriptor.get(), static_cast<const char*>(data), size, static_cast<off_t>(offset));
}

bool RawFile::flush() const {
    return ::fsync(descriptor.get()) == 0;
}

void RawFile::dropCache() const {
    ::posix_fadvise(descriptor.get(), 0, 0, POSIX_FADV_DONTNEED);
    // A block device may keep more: what only root may give up, and only a block device has.
    (void)::ioctl(descriptor.get(), BLKFLSBUF, 0);
    ::posix_fadvise(descriptor.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

}  // namespace kavro
