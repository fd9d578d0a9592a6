// readFile2String, readFileToBufferByOffset.

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <new>
#include <stdexcept>

#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"

namespace COMMON_YR {
namespace {

constexpr std::size_t kLeastBlock = 4096;

// The size that the file has now, as a hint: it may grow, and files of /proc say 0.
std::size_t expectedSize(int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    return static_cast<std::size_t>(status.st_size);
}

std::string readToEnd(int fd) {
    std::string content;
    std::size_t block = expectedSize(fd) + 1;  // one more than is there, so that the end shows at once
    for (;;) {
        block = std::max(block, kLeastBlock);
        const std::size_t used = content.size();
        content.resize(used + block);
        const ssize_t count = kavro::readFully(fd, content.data() + used, block);
        if (count < 0) {
            return {};
        }
        content.resize(used + static_cast<std::size_t>(count));
        if (static_cast<std::size_t>(count) < block) {
            return content;
        }
        block = content.size();
    }
}

}  // namespace

std::string readFile2String(const char* path) {
    const CancelHold hold;
    if (path == nullptr) {
        return {};
    }
    const kavro::FileDescriptor file = kavro::openToRead(path);
    if (!file.valid()) {
        return {};
    }
    try {
        return readToEnd(file.get());
    } catch (const std::bad_alloc&) {
        return {};
    } catch (const std::length_error&) {
        return {};
    }
}

long readFileToBufferByOffset(const char* path, unsigned long offset, unsigned long length, char* buffer) {
    const CancelHold hold;
    if (path == nullptr || (buffer == nullptr && length != 0) || offset > LONG_MAX || length > LONG_MAX) {
        return -1;
    }
    const kavro::FileDescriptor file = kavro::openToRead(path);
    if (!file.valid()) {
        return -1;
    }
    return kavro::readFullyAt(file.get(), buffer, length, static_cast<off_t>(offset));
}

}  // namespace COMMON_YR
