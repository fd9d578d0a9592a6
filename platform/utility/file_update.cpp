#include "platform/utility/file_update.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/aligned_buffer.h"
#include "base/file_io.h"

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

bool FileUpdate::begin(const Destination& place, off_t size, mode_t mode, const struct stat* spared) {
    destination = place;
    if (destination.isSpecial() || (destination.exists && isMountPoint(destination.path))) {
        return beginInPlace(size);
    }
    // Nobody may read through the new file what the old one's mode keeps from them.
    const mode_t openMode = destination.exists ? destination.status.st_mode & mode : mode;
    if (!part.create(destination.path, openMode, spared)) {
        return destination.exists && forbidsNewFiles(errno) && beginInPlace(size);
    }
    return !destination.exists || takeOver(part.fd(), destination.status);
}

// Opened without O_TRUNC: the old content goes only when the new one has its room.
bool FileUpdate::beginInPlace(off_t size) {
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
    if (writesInPlace()) {
        return commitInPlace(size);
    }
    if (part.commit()) {
        return true;
    }
    // A kernel before 5.8 tells only now that the destination is a mount point.
    return part.isPlaceBusy() && destination.exists && copyIntoPlace(size) && commitInPlace(size);
}

bool FileUpdate::copyIntoPlace(off_t size) {
    constexpr off_t kBlock = 1 << 20;
    const AlignedBuffer block = makeAlignedBuffer(kBlock);
    if (!block || !beginInPlace(size)) {
        return false;
    }
    (void)leaveDirect(part.fd());
    for (off_t position = 0; position < size;) {
        const auto length = static_cast<std::size_t>(std::min(size - position, kBlock));
        const ssize_t count = readFullyAt(part.fd(), block.get(), length, position);
        if (count <= 0 ||
            !writeFullyAt(inPlace.get(), block.get(), static_cast<std::size_t>(count), position)) {
            return false;
        }
        position += count;
    }
    return true;
}

bool FileUpdate::commitInPlace(off_t size) {
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
