#include "platform/mcu/raw_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kavro {

RawFile::~RawFile() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

bool RawFile::open(const std::string& path, int flags) {
    do {
        descriptor = ::open(path.c_str(), flags | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor >= 0;
}

long long RawFile::size() const {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) {
        return -1;
    }
    if (S_ISREG(status.st_mode)) {
        return status.st_size;
    }
    std::uint64_t bytes = 0;
    if (!S_ISBLK(status.st_mode) || ::ioctl(descriptor, BLKGETSIZE64, &bytes) != 0) {
        return -1;
    }
    return static_cast<long long>(bytes);
}

long RawFile::readAt(void* buffer, std::size_t size, long long offset) const {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(descriptor, static_cast<char*>(buffer) + done, size - done,
                                      static_cast<off_t>(offset + static_cast<long long>(done)));
        if (count == 0) {
            break;
        }
        if (count < 0 && errno != EINTR) {
            return -1;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return static_cast<long>(done);
}

bool RawFile::writeAt(const void* data, std::size_t size, long long offset) const {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pwrite(descriptor, static_cast<const char*>(data) + done, size - done,
                                       static_cast<off_t>(offset + static_cast<long long>(done)));
        if (count == 0) {
            errno = ENOSPC;
            return false;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

bool RawFile::flush() const {
    return ::fsync(descriptor) == 0;
}

void RawFile::dropCache() const {
    ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
}

std::string fileError(const std::string& path, const std::string& what, int errorNumber) {
    std::string text = path + ": " + what;
    if (errorNumber != 0) {
        const char* description = ::strerrordesc_np(errorNumber);
        text += std::string(": ") + (description != nullptr ? description : "unknown error");
    }
    return text;
}

}  // namespace kavro
