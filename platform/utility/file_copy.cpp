// cpFile, mvFile.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/aligned_buffer.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/destination.h"
#include "platform/utility/file_update.h"

namespace COMMON_YR {
namespace {

constexpr off_t kBlock = 1 << 20;
constexpr off_t kSmallestHole = 128 << 10;  // of those that a copy gets for zeros
// A copy of a package waits for storage in any case, and is read much later or not at all: past the cache it costs
// storage's time only. What is smaller fits into one block.
constexpr off_t kDirectFrom = kBlock + 1;
constexpr off_t kPushBlock = 4 << 20;  // what is written back at once
constexpr off_t kUnderWay = 16 << 20;  // what may be under way to storage: a fraction of a second's work
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kPrivateMode = 0600;  // until the copy has the source's
constexpr blkcnt_t kStatBlock = 512;   // the unit of st_blocks

// File systems keep some blocks for their own records: one byte in this many of content is more than enough.
constexpr off_t kRecordShare = 512;

bool isZero(const char* data, std::size_t length) {
    return data[0] == 0 && std::memcmp(data, data + 1, length - 1) == 0;
}

// Where the file system can, both files get the same storage until one of them is written to. False when
// nothing was done.
bool shareContent(int from, int to, off_t size) {
    file_clone_range range = {};
    range.src_fd = from;
    range.src_length = static_cast<__u64>(size);
    return ioctl(to, FICLONERANGE, &range) == 0;
}

// Copies the content of one open file to another, block by block, with a checkpoint between two blocks.
class Copier {
  public:
    Copier(int from, int to, const CancelHold& cancelHold) : source(from), sink(to), hold(cancelHold) {}

    // Everything from the current positions to the source's end, for what has no size or no positions.
    // Returns the number of bytes, negative on failure.
    off_t copyStream();
    // The whole content, over whatever the sink holds.
    bool copyOver(off_t size) { return copyRange(0, size); }
    // The same to a sink that is empty: holes of the source, and blocks of zeros, become holes.
    bool copyToEmpty(off_t size);

  private:
    // The range, which the source must fill.
    bool copyRange(off_t begin, off_t end);
    ssize_t copyBlock(off_t position, off_t length);
    bool pushOut(off_t position);
    bool writeBlock(const char* data, off_t length, off_t position);
    bool write(const char* data, off_t length, off_t position);
    [[nodiscard]] bool writeBack(off_t begin, off_t end, unsigned how) const;
    char* buffer();

    int source;
    int sink;
    const CancelHold& hold;
    bool leavesHoles = false;
    off_t pushedFrom = 0;  // write-back has been started up to pushedTo, and waited for up to pushedFrom
    off_t pushedTo = 0;
    kavro::AlignedBuffer memory;
};

// Null, with errno set, when there is no memory to be had.
char* Copier::buffer() {
    if (!memory) {
        memory = kavro::makeAlignedBuffer(kBlock);
    }
    return memory.get();
}

off_t Copier::copyStream() {
    char* const block = buffer();
    if (block == nullptr) {
        return -1;
    }
    for (off_t total = 0;;) {
        const ssize_t count = kavro::readFully(source, block, kBlock);
        if (count < 0 || !kavro::writeFully(sink, block, static_cast<std::size_t>(count))) {
            return -1;
        }
        total += count;
        if (count < kBlock) {
            return total;
        }
        hold.checkpoint();
    }
}

bool Copier::copyRange(off_t begin, off_t end) {
    for (off_t position = begin; position < end;) {
        const ssize_t count = copyBlock(position, std::min(end - position, kBlock));
        if (count <= 0) {
            return false;
        }
        position += count;
        if (!pushOut(position)) {
            return false;
        }
        hold.checkpoint();
    }
    return true;
}

bool Copier::copyToEmpty(off_t size) {
    leavesHoles = true;
    if (size >= kDirectFrom) {
        kavro::enterDirect(sink);
    }
    for (off_t position = 0; position < size;) {
        const off_t data = lseek(source, position, SEEK_DATA);
        if (data < 0) {
            // ENXIO: a hole up to the end. Anything else: the file system does not tell.
            return errno == ENXIO || copyRange(position, size);
        }
        const off_t hole = lseek(source, data, SEEK_HOLE);
        const off_t end = hole < 0 ? size : std::min(hole, size);
        if (!copyRange(data, end)) {
            return false;
        }
        position = std::max(end, data);
    }
    return true;
}

// Returns the number of bytes copied, 0 when the source has ended, negative on failure.
ssize_t Copier::copyBlock(off_t position, off_t length) {
    char* const block = buffer();
    if (block == nullptr) {
        return -1;
    }
    const ssize_t count = kavro::readFullyAt(source, block, static_cast<std::size_t>(length), position);
    if (count <= 0) {
        return count;
    }
    return writeBlock(block, count, position) ? count : -1;
}

bool Copier::writeBlock(const char* data, off_t length, off_t position) {
    off_t begin = 0;  // of what is still to be written
    for (off_t piece = 0; leavesHoles && piece < length; piece += kSmallestHole) {
        const off_t end = std::min(piece + kSmallestHole, length);
        if (isZero(data + piece, static_cast<std::size_t>(end - piece))) {
            if (!write(data + begin, piece - begin, position + begin)) {
                return false;
            }
            begin = end;
        }
    }
    return write(data + begin, length - begin, position + begin);
}

bool Copier::write(const char* data, off_t length, off_t position) {
    return length == 0 || kavro::writeDirectAt(sink, data, static_cast<std::size_t>(length), position);
}

// What went through the cache: starts its write-back, and waits where too much of it is under way. The flush at the end,
// which cannot be cut short, has little left to do. To wait for less at a time would let storage run idle in between.
bool Copier::pushOut(off_t position) {
    if (position - pushedTo < kPushBlock) {
        return true;
    }
    bool pushed = writeBack(pushedTo, position, SYNC_FILE_RANGE_WRITE);
    pushedTo = position;
    if (pushedTo - pushedFrom > kUnderWay) {
        constexpr unsigned kComplete =
            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
        const off_t done = pushedTo - kUnderWay;
        pushed = writeBack(pushedFrom, done, kComplete) && pushed;
        pushedFrom = done;
    }
    return pushed;
}

// An error of the storage shows only once, here or at the final flush. Where the call is unknown the flush does all the
// work.
bool Copier::writeBack(off_t begin, off_t end, unsigned how) const {
    return sync_file_range(sink, begin, end - begin, how) == 0 || errno == ENOSYS || errno == EINVAL ||
           errno == ESPIPE || errno == EOPNOTSUPP;
}

// Whether there is room for the new content; gives up the old destination when there is room only without it.
bool makeRoom(const kavro::Destination& destination, int newFile, const struct stat& source) {
    struct statvfs fileSystem;
    if (!destination.exists || fstatvfs(newFile, &fileSystem) != 0 || fileSystem.f_blocks == 0) {
        return true;  // nothing to decide or to go by: the copy itself finds out
    }
    const auto blockSize = static_cast<off_t>(fileSystem.f_frsize);
    const off_t available = static_cast<off_t>(fileSystem.f_bavail) * blockSize;
    const off_t free = static_cast<off_t>(fileSystem.f_bfree) * blockSize;  // with what is reserved to root
    const off_t needed = std::min(source.st_size, source.st_blocks * kStatBlock);
    if (needed + needed / kRecordShare <= available) {
        return true;
    }
    const struct stat& old = destination.status;
    const off_t gained = old.st_nlink == 1 ? old.st_blocks * kStatBlock : 0;
    if (needed > free + gained) {
        errno = ENOSPC;
        return false;
    }
    return gained == 0 || unlink(destination.path.c_str()) == 0;
}

// Sets the mode of the copy, where the file system knows one.
bool setPermissions(int copy, mode_t sourceMode) {
    return fchmod(copy, sourceMode & kPermissionBits) == 0 || errno == EPERM;
}

// Gives an update that has begun its content. Returns the content's size, negative on failure.
off_t copyContent(int from, const struct stat& source, const kavro::Destination& destination,
                  const kavro::FileUpdate& update, const CancelHold& hold) {
    Copier copier(from, update.fd(), hold);
    const off_t size = source.st_size;
    if (destination.isSpecial() || size == 0) {  // a file of /proc has the size 0 whatever it holds
        return copier.copyStream();
    }
    if (update.writesInPlace()) {
        return copier.copyOver(size) ? size : -1;
    }
    const bool copied = shareContent(from, update.fd(), size) ||
                        (copier.copyToEmpty(size) && ftruncate(update.fd(), size) == 0);
    return copied ? size : -1;
}

// Whether the source still is as long as when the copy began: one that was cut would have been copied as a hole.
bool isStillWhole(int source, off_t size) {
    struct stat status;
    return fstat(source, &status) == 0 && status.st_size >= size;
}

bool isDirectory(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

int cpFile(std::string src, std::string dst) {
    const CancelHold hold;
    const kavro::FileDescriptor from = kavro::openToRead(src);
    struct stat source;
    if (!from.valid() || fstat(from.get(), &source) != 0 || !S_ISREG(source.st_mode)) {
        return -1;
    }
    const auto destination = kavro::locateDestination(dst);
    if (!destination) {
        return -1;
    }
    // Whoever asks for a copy counts on two files, so one file under two names is a failure, not a copy.
    if (destination->exists && kavro::isSameFile(source, destination->status)) {
        return -1;
    }

    kavro::FileUpdate update;
    if (!update.begin(*destination, source.st_size, kPrivateMode, &source)) {
        return -1;
    }
    if (!update.writesInPlace() &&
        !(setPermissions(update.fd(), source.st_mode) && makeRoom(*destination, update.fd(), source))) {
        return -1;
    }
    const off_t copied = copyContent(from.get(), source, *destination, update, hold);
    const bool whole = copied >= 0 && isStillWhole(from.get(), source.st_size);
    return whole && update.commit(copied) ? 0 : -1;
}

int mvFile(std::string src, std::string dst) {
    const CancelHold hold;
    if (isDirectory(src) || isDirectory(dst)) {
        return -1;
    }
    if (rename(src.c_str(), dst.c_str()) != 0) {
        if (errno != EXDEV || cpFile(src, dst) < 0 || unlink(src.c_str()) != 0) {
            return -1;
        }
    }
    (void)kavro::flushDirectory(kavro::parentDirectory(dst));
    (void)kavro::flushDirectory(kavro::parentDirectory(src));
    return 0;
}

}  // namespace COMMON_YR
