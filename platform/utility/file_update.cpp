#include "platform/utility/file_update.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/utility/file_io.h"

namespace kavro {
namespace {

constexpr mode_t kModeBits = 07777;

bool forbidsNewFiles(int error) {
    return error == EACCES || error == EPERM || error == EROFS;
}

// Not everybody may give a file away, and not every file system knows owners: a foreign owner is no reason to
// fail.
bool takeOver(int fd, const struct stat& replaced) {
    if (fchown(fd, replaced.st_uid, replaced.st_gid) != 0 && errno != EPERM && errno != EINVAL &&
        errno != ENOTSUP) {
        return false;
    }
    return fchmod(fd, replaced.st_mode & kModeBits) == 0 || errno == EPERM;
}

// Finds out that storage is full before the first old byte is overwritten.
bool reserve(int fd, off_t oldSize, off_t newSize) {
    if (newSize <= oldSize || fallocate(fd, 0, oldSize, newSize - oldSize) == 0) {
        return true;
    }
    if (errno == EOPNOTSUPP || errno == ENOSYS) {
        return true;
    }
    const int cause = errno;
    (void)!ftruncate(fd, oldSize);
    errno = cause;
    return false;
}

}  // namespace

FileUpdate::~FileUpdate() {
    if (endsHalfWritten) {
        (void)!ftruncate(inPlace.get(), 0);
    }
}

bool FileUpdate::begin(const Destination& destination, off_t size, mode_t mode, const struct stat* spared) {
    if (destination.isSpecial()) {
        return beginInPlace(destination, size);
    }
    // Nobody may read through the new file what the old one's mode keeps from them.
    const mode_t openMode = destination.exists ? destination.status.st_mode & mode : mode;
    if (!part.create(destination.path, openMode, spared)) {
        return destination.exists && forbidsNewFiles(errno) && beginInPlace(destination, size);
    }
    return !destination.exists || takeOver(part.fd(), destination.status);
}

// Opened without O_TRUNC: the old content goes only when the new one has its room.
bool FileUpdate::beginInPlace(const Destination& destination, off_t size) {
    // A FIFO without reader fails at once instead of waiting for one.
    inPlace = FileDescriptor(open(destination.path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!inPlace.valid()) {
        return false;
    }
    if (destination.isRegular()) {
        if (!reserve(inPlace.get(), destination.status.st_size, size)) {
            return false;
        }
        endsHalfWritten = true;
    }
    return true;
}

bool FileUpdate::commit(off_t size) {
    if (!writesInPlace()) {
        return part.commit();
    }
    if (endsHalfWritten && ftruncate(inPlace.get(), size) != 0) {
        return false;
    }
    if (!flushFile(inPlace.get())) {
        return false;
    }
    endsHalfWritten = false;
    return inPlace.close();
}

}  // namespace kavro
