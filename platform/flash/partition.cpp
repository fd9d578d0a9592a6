#include "platform/flash/partition.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/mcu/raw_file.h"

namespace kavro {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;

bool fail(const std::string& path, const std::string& what, int errorNumber, std::string& error) {
    error = fileError(path, what, errorNumber);
    return false;
}

bool isBlockDevice(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}

bool isRegularFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// An exclusive open of a block device fails while it is mounted.
bool openPartition(const std::string& path, int flags, RawFile& file, std::string& error) {
    const int exclusive = isBlockDevice(path) ? O_EXCL : 0;
    return file.open(path, flags | exclusive) || fail(path, "the partition cannot be opened", errno, error);
}

bool openComponent(const Placement& placement, RawFile& file, std::string& error) {
    if (!file.open(placement.component, O_RDONLY)) {
        return fail(placement.component, "cannot be opened", errno, error);
    }
    if (placement.bytes != file.size()) {
        return fail(placement.component, "changed its size after it was checked", 0, error);
    }
    return true;
}

bool readBlock(const RawFile& file, const std::string& path, std::vector<char>& block, std::size_t size,
               long long offset, std::string& error) {
    const long count = file.readAt(block.data(), size, offset);
    return count == static_cast<long>(size) || fail(path, "cannot be read", count < 0 ? errno : 0, error);
}

// Calls work(block, size, offset) for every block of the component, until one fails.
template <typename Work>
bool forEachBlock(const Placement& placement, const RawFile& component, const KeepGoing& keepGoing,
                  std::string& error, const Work& work) {
    std::vector<char> block(kBlockBytes);
    for (long long offset = 0; offset < placement.bytes; offset += static_cast<long long>(kBlockBytes)) {
        if (!keepGoing()) {
            return fail(placement.partition, "the work was given up", 0, error);
        }
        const auto left = static_cast<std::size_t>(placement.bytes - offset);
        const std::size_t size = std::min(kBlockBytes, left);
        if (!readBlock(component, placement.component, block, size, offset, error) ||
            !work(block, size, offset)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool checkPlacement(Placement& placement, std::string& error) {
    RawFile component;
    if (!component.open(placement.component, O_RDONLY | O_NONBLOCK)) {
        return fail(placement.component, "cannot be opened", errno, error);
    }
    if (!isRegularFile(placement.component)) {
        return fail(placement.component, "is no regular file", 0, error);
    }
    placement.bytes = component.size();
    if (placement.bytes <= 0) {
        return fail(placement.component, "is empty", 0, error);
    }

    RawFile partition;
    if (!openPartition(placement.partition, O_RDWR | O_NONBLOCK, partition, error)) {
        return false;
    }
    const long long capacity = partition.size();
    if (capacity < 0) {
        return fail(placement.partition, "is neither a block device nor a file", 0, error);
    }
    if (placement.bytes > capacity) {
        return fail(placement.component,
                    "has " + std::to_string(placement.bytes) + " bytes, too large for " +
                        placement.partition + " of " + std::to_string(capacity) + " bytes",
                    0, error);
    }
    return true;
}

bool samePartition(const std::string& left, const std::string& right) {
    struct stat leftStatus {};
    struct stat rightStatus {};
    if (::stat(left.c_str(), &leftStatus) != 0 || ::stat(right.c_str(), &rightStatus) != 0) {
        return false;
    }
    if (S_ISBLK(leftStatus.st_mode) && S_ISBLK(rightStatus.st_mode)) {
        return leftStatus.st_rdev == rightStatus.st_rdev;
    }
    return leftStatus.st_dev == rightStatus.st_dev && leftStatus.st_ino == rightStatus.st_ino;
}

bool writePlacement(const Placement& placement, const KeepGoing& keepGoing, std::string& error) {
    RawFile component;
    RawFile partition;
    if (!openComponent(placement, component, error) ||
        !openPartition(placement.partition, O_WRONLY, partition, error)) {
        return false;
    }
    if (partition.size() < placement.bytes) {
        return fail(placement.partition, "became smaller after it was checked", 0, error);
    }
    const auto write = [&](const std::vector<char>& block, std::size_t size, long long offset) {
        return partition.writeAt(block.data(), size, offset) ||
               fail(placement.partition, "cannot be written", errno, error);
    };
    if (!forEachBlock(placement, component, keepGoing, error, write)) {
        return false;
    }
    return partition.flush() || fail(placement.partition, "cannot be flushed", errno, error);
}

bool verifyPlacement(const Placement& placement, const KeepGoing& keepGoing, std::string& error) {
    RawFile component;
    RawFile partition;
    if (!openComponent(placement, component, error) ||
        !openPartition(placement.partition, O_RDONLY, partition, error)) {
        return false;
    }
    partition.dropCache();
    std::vector<char> stored(kBlockBytes);
    const auto compare = [&](const std::vector<char>& block, std::size_t size, long long offset) {
        if (!readBlock(partition, placement.partition, stored, size, offset, error)) {
            return false;
        }
        return std::memcmp(block.data(), stored.data(), size) == 0 ||
               fail(placement.partition, "does not hold what was written from " + placement.component, 0,
                    error);
    };
    return forEachBlock(placement, component, keepGoing, error, compare);
}

}  // namespace kavro
