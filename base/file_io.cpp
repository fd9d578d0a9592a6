#include "base/file_io.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/sigpipe_hold.h"

namespace kavro {
namespace {

// Repeats transfer(done) until length bytes are done, the result is 0, or it fails for more than a signal.
template <typename Transfer>
ssize_t transferFully(std::size_t length, const Transfer& transfer) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t count = transfer(done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

bool waitUntilWritable(int fd) {
    pollfd descriptor = {fd, POLLOUT, 0};
    while (poll(&descriptor, 1, -1) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// As write(), but waits for room.
ssize_t writeWaiting(int fd, const char* data, std::size_t length) {
    const SigpipeHold hold;
    for (;;) {
        const ssize_t count = write(fd, data, length);
        if (count >= 0 || errno != EAGAIN || !waitUntilWritable(fd)) {
            return count;
        }
    }
}

bool isUnsupportedFlush(int error) {
    return error == EINVAL || error == EROFS || error == ENOTSUP;
}

bool isWhole(ssize_t count, std::size_t length) {
    return count >= 0 && static_cast<std::size_t>(count) == length;
}

}  // namespace

FileDescriptor openToRead(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

ssize_t readFully(int fd, char* buffer, std::size_t length) {
    return transferFully(length, [&](std::size_t done) { return read(fd, buffer + done, length - done); });
}

ssize_t readFullyAt(int fd, char* buffer, std::size_t length, off_t offset) {
    return transferFully(length, [&](std::size_t done) {
        return pread(fd, buffer + done, length - done, offset + static_cast<off_t>(done));
    });
}

bool readBeginning(const std::string& path, std::size_t most, std::string& text) {
    constexpr std::size_t kBlock = 4096;
    text.clear();
    const FileDescriptor file = openToRead(path);
    if (!file.valid()) {
        return false;
    }
    for (std::size_t wanted = 0; text.size() == wanted && wanted < most;) {
        const std::size_t used = wanted;
        wanted = std::min(most, used + kBlock);
        text.resize(wanted);
        const ssize_t count = readFully(file.get(), text.data() + used, wanted - used);
        if (count < 0) {
            return false;
        }
        text.resize(used + static_cast<std::size_t>(count));
    }
    return true;
}

bool writeFully(int fd, const char* data, std::size_t length) {
    return isWhole(
        transferFully(length, [&](std::size_t done) { return writeWaiting(fd, data + done, length - done); }),
        length);
}

bool writeFullyAt(int fd, const char* data, std::size_t length, off_t offset) {
    return isWhole(transferFully(length,
                                 [&](std::size_t done) {
                                     return pwrite(fd, data + done, length - done,
                                                   offset + static_cast<off_t>(done));
                                 }),
                   length);
}

void enterDirect(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) {
        (void)fcntl(fd, F_SETFL, flags | O_DIRECT);
    }
}

bool leaveDirect(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0 && fcntl(fd, F_SETFL, flags & ~O_DIRECT) == 0;
}

bool writeDirectAt(int fd, const char* data, std::size_t length, off_t offset) {
    return writeFullyAt(fd, data, length, offset) ||
           (errno == EINVAL && leaveDirect(fd) && writeFullyAt(fd, data, length, offset));
}

bool flushFile(int fd) {
    while (fsync(fd) != 0) {
        if (errno != EINTR) {
            return isUnsupportedFlush(errno);
        }
    }
    return true;
}

bool flushDirectory(const std::string& path) {
    const FileDescriptor directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid()) {
        // One that may be written but not read cannot be flushed by anybody; what it holds is still right.
        return errno == EACCES;
    }
    return flushFile(directory.get());
}

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool isNamed(int fd, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && lstat(path.c_str(), &named) == 0 && isSameFile(opened, named);
}

std::string parentDirectory(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace kavro
