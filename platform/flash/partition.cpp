#include "platform/flash/partition.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/block_reader.h"
#include "base/digest.h"
#include "base/errno_text.h"
#include "base/file_io.h"
#include "platform/flash/digest_aside.h"
#include "platform/flash/flash_progress.h"

namespace kavro {
namespace {

bool fail(const std::string& path, const std::string& what, int errorNumber, std::string& error) {
    error = fileError(path, what, errorNumber);
    return false;
}

bool hasChanged(const Placement& placement, std::string& error) {
    return fail(placement.component, "changed after it was checked", 0, error);
}

mode_t typeOf(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

// An exclusive open of a block device fails while it is mounted.
bool openToWrite(const std::string& partition, int flags, RawFile& file, std::string& error) {
    const int exclusive = typeOf(partition) == S_IFBLK ? O_EXCL : 0;
    if (file.openDirect(partition, flags | exclusive)) {
        return true;
    }
    const bool isUsed = exclusive != 0 && errno == EBUSY;
    return fail(partition,
                isUsed ? "the partition is in use: mounted, or part of the slot that runs"
                       : "the partition cannot be opened",
                errno, error);
}

bool openComponent(const Placement& placement, RawFile& file, std::string& error) {
    if (!file.open(placement.component, O_RDONLY | O_NONBLOCK)) {
        return fail(placement.component, "cannot be opened", errno, error);
    }
    return true;
}

// Whoever writes to a file, or puts another one in its place, leaves another time of change behind, unless it is within
// one tick of the file system's clock.
bool isSameState(const struct stat& left, const struct stat& right) {
    return isSameFile(left, right) && left.st_size == right.st_size &&
           left.st_ctim.tv_sec == right.st_ctim.tv_sec && left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

bool isStillUnchanged(const Placement& placement, const RawFile& file, std::string& error) {
    struct stat now = {};
    return (file.status(now) && isSameState(placement.seen, now)) || hasChanged(placement, error);
}

bool openUnchanged(const Placement& placement, RawFile& file, std::string& error) {
    return openComponent(placement, file, error) && isStillUnchanged(placement, file, error);
}

// Calls work(block) for every block of the file's first `bytes` bytes, until one fails.
template <typename Work>
bool forEachBlock(const RawFile& file, const std::string& path, long long bytes, const KeepGoing& keepGoing,
                  std::string& error, const Work& work) {
    // Whole sectors, for else the end of a file would come through the cache. The buffer has room for them.
    const auto readAt = [&file](char* buffer, std::size_t size, long long offset) {
        const std::size_t sectors = (size + kDirectAlignment - 1) / kDirectAlignment * kDirectAlignment;
        return std::min(file.readAt(buffer, sectors, offset), static_cast<long>(size));
    };
    BlockReader reader(readAt, bytes);
    while (const BlockReader::Block* const block = reader.next()) {
        if (!keepGoing()) {
            return fail(path, "the work was given up", 0, error);
        }
        if (block->count < 0) {
            return fail(path, "cannot be read", block->error, error);
        }
        if (static_cast<std::size_t>(block->count) != block->size) {
            return fail(path, "ends before its " + std::to_string(bytes) + " bytes", 0, error);
        }
        if (!work(*block)) {
            return false;
        }
        mpuProgress.add(block->count);
    }
    return true;
}

bool isComputed(const std::string& sha256, const std::string& path, std::string& error) {
    return !sha256.empty() || fail(path, "its SHA-256 cannot be computed", 0, error);
}

// The SHA-256 of the file's first `bytes` bytes.
bool computeDigest(const RawFile& file, const std::string& path, long long bytes, const KeepGoing& keepGoing,
                   std::string& sha256, std::string& error) {
    Digest digest(Digest::Kind::kSha256);
    const auto add = [&digest](const BlockReader::Block& block) {
        digest.add(block.data, block.size);
        return true;
    };
    if (!forEachBlock(file, path, bytes, keepGoing, error, add)) {
        return false;
    }
    sha256 = digest.finishAsText();
    return isComputed(sha256, path, error);
}

bool checkFits(const Placement& placement, std::string& error) {
    RawFile partition;
    if (!openToWrite(placement.partition, O_RDWR | O_NONBLOCK, partition, error)) {
        return false;
    }
    const long long capacity = partition.size();
    if (capacity < 0) {
        return fail(placement.partition, "is neither a block device nor a file", 0, error);
    }
    if (placement.content.bytes > capacity) {
        return fail(placement.component,
                    "has " + std::to_string(placement.content.bytes) + " bytes, too large for " +
                        placement.partition + " of " + std::to_string(capacity) + " bytes",
                    0, error);
    }
    return true;
}

// The digest of what was read now, which must be that of what was read before, if anything was.
bool recordDigest(Placement& placement, const std::string& sha256, std::string& error) {
    if (!isComputed(sha256, placement.component, error)) {
        return false;
    }
    std::string& known = placement.content.sha256;
    if (known.empty()) {
        known = sha256;
    }
    return sha256 == known || hasChanged(placement, error);
}

}  // namespace

bool checkPlacement(Placement& placement, std::string& error) {
    RawFile component;
    placement.content = {};
    if (!openComponent(placement, component, error)) {
        return false;
    }
    if (!component.status(placement.seen)) {
        return fail(placement.component, "cannot be read", errno, error);
    }
    if (!S_ISREG(placement.seen.st_mode)) {
        return fail(placement.component, "is no regular file", 0, error);
    }
    placement.content.bytes = placement.seen.st_size;
    if (placement.content.bytes <= 0) {
        return fail(placement.component, "is empty", 0, error);
    }
    return checkFits(placement, error);
}

bool readComponent(Placement& placement, const KeepGoing& keepGoing, std::string& error) {
    RawFile component;
    return openUnchanged(placement, component, error) &&
           computeDigest(component, placement.component, placement.content.bytes, keepGoing,
                         placement.content.sha256, error);
}

bool writePlacement(Placement& placement, const KeepGoing& keepGoing, std::string& error) {
    const long long bytes = placement.content.bytes;
    RawFile component;
    RawFile partition;
    if (!openUnchanged(placement, component, error) ||
        !openToWrite(placement.partition, O_WRONLY, partition, error)) {
        return false;
    }
    if (partition.size() < bytes) {
        return fail(placement.partition, "became smaller after it was checked", 0, error);
    }
    // While this thread waits for storage, the block goes into the digest, and the next one is read.
    DigestAside digest;
    const auto write = [&](const BlockReader::Block& block) {
        digest.add(block.data, block.size);
        const bool written = partition.writeAt(block.data, block.size, block.offset);
        const int cause = errno;
        digest.wait();
        return written || fail(placement.partition, "cannot be written", cause, error);
    };
    if (!forEachBlock(component, placement.component, bytes, keepGoing, error, write)) {
        return false;
    }
    if (!partition.flush()) {
        return fail(placement.partition, "cannot be flushed", errno, error);
    }
    return recordDigest(placement, digest.finishAsText(), error) &&
           isStillUnchanged(placement, component, error);
}

bool verifyPartition(const std::string& partition, const PartContent& content, const KeepGoing& keepGoing,
                     std::string& error) {
    RawFile file;
    if (!file.openDirect(partition, O_RDONLY)) {
        return fail(partition, "the partition cannot be opened", errno, error);
    }
    file.dropCache();  // for a file system that reads nothing past it
    std::string sha256;
    if (!computeDigest(file, partition, content.bytes, keepGoing, sha256, error)) {
        return false;
    }
    return sha256 == content.sha256 ||
           fail(partition,
                "does not hold what it must: the SHA-256 of its first " + std::to_string(content.bytes) +
                    " bytes is " + sha256 + ", not " + content.sha256,
                0, error);
}

}  // namespace kavro
