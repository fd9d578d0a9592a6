#include "agent/internal/room.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>

#include "base/file_descriptor.h"
#include "package/trailer.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kStatBlock = 512;    // the unit of st_blocks
constexpr std::uint64_t kBlock = 4096;       // that file systems store in, commonly
constexpr std::uint64_t kRecordShare = 512;  // they need one byte in that many for their own records, at most
constexpr std::uint64_t kPiece = 128 << 10;  // copies look for zeros in pieces of this length
constexpr std::uint64_t kConfigBytes =
    32 << 10;  // outcome, versions, written slot, marker, and their .part files
constexpr std::uint64_t kTmpBytes = 16 << 10;  // the package's key
constexpr mode_t kPrivateMode = 0600;

std::uint64_t roundedUp(std::uint64_t bytes, std::uint64_t unit) {
    return (bytes + unit - 1) / unit * unit;
}

// What the removal of a file gives; nothing for one that has another name, too.
std::uint64_t freedBy(const std::string& path) {
    struct stat status = {};
    const bool isRemoved =
        lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
    return isRemoved ? static_cast<std::uint64_t>(status.st_blocks) * kStatBlock : 0;
}

// A copy is written beside the file that it replaces; what a former one has left there gives way first.
std::uint64_t freedByCopyTo(const std::string& path) {
    return freedBy(path) + freedBy(path + ".part");
}

// What `rm /raw/*` gives, which leaves hidden files of the top.
std::uint64_t freedByEmptying(const std::string& directory) {
    std::uint64_t bytes = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry.depth() == 0 && entry->path().filename().string().front() == '.') {
            entry.disable_recursion_pending();
        } else {
            bytes += freedBy(entry->path().string());
        }
    }
    return bytes;
}

// Whether a file system stores holes as such: one that does not, as FAT, fills what a file is extended by. Nothing is
// written for it, and the file has no name.
bool keepsHoles(const std::string& directory) {
    const FileDescriptor file(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kPrivateMode));
    struct stat status = {};
    return file.valid() && ftruncate(file.get(), kPiece) == 0 && fstat(file.get(), &status) == 0 &&
           static_cast<std::uint64_t>(status.st_blocks) * kStatBlock < kPiece;
}

// The storage of a copy of the package: the copy leaves out the holes of the source, and of what the source has stored
// whole pieces of zeros, so the gap between payload and trailer takes nothing, whether it is a hole in the source or not.
// Where the file system knows no holes it is all 128 MiB.
std::uint64_t copyBytes(const std::string& directory, std::uint64_t payloadBytes) {
    const std::uint64_t content = roundedUp(payloadBytes, kPiece) + kPiece;
    return keepsHoles(directory) ? std::min(content, package::kPackageBytes) : package::kPackageBytes;
}

// What has to be free in /firmware when the run begins:
//
//     package -> upgrade.pkg    needs a copy; an older upgrade.pkg gives way when there is no room beside it
//     upgrade.pkg is cut to its payload
//     rollback.pkg is removed
//     package -> rollback.pkg   needs a copy beside upgrade.pkg
std::uint64_t firmwareNeed(const RoomFor& what) {
    const std::string& upgrade = UpgradeProc::upgradePkg;
    const std::string& rollback = UpgradeProc::rollbackPkg;
    const std::uint64_t copy = copyBytes(fs::path(upgrade).parent_path().string(), what.payloadBytes);
    std::uint64_t first = copy;
    if (freedBy(upgrade) > 0) {
        // Whether an older copy has to go is decided by the storage of the source, zeros and all.
        struct stat source = {};
        const bool known = stat(what.package.c_str(), &source) == 0;
        const auto stored = known ? static_cast<std::uint64_t>(source.st_blocks) * kStatBlock : 0;
        first = std::max(first, std::min(stored, package::kPackageBytes));
    }
    const std::uint64_t second = roundedUp(what.payloadBytes, kBlock) + copy;
    const std::uint64_t left = freedByCopyTo(upgrade);
    const std::uint64_t afterwards = left + freedByCopyTo(rollback);
    // A copy that stays until the run is over takes the place of an older one.
    const std::uint64_t beside = what.isKept ? copy - std::min(copy, freedByCopyTo(UpgradeProc::recvPkg)) : 0;
    const std::uint64_t firstNeed = first > left ? first - left : 0;
    const std::uint64_t secondNeed = second > afterwards ? second - afterwards : 0;
    return beside + std::max(firstNeed, secondNeed);
}

// One file system, with all of the directories that lie in it.
struct Storage {
    dev_t device = 0;
    std::string directories;
    std::uint64_t need = 0;
    std::uint64_t available = 0;
};

struct Claim {
    std::string directory;
    std::uint64_t need;
    std::uint64_t freed;  // by the run itself, before it needs the room
};

// What cannot be asked is told elsewhere: it cannot be written either.
void enter(const Claim& claim, std::vector<Storage>& all) {
    struct stat status = {};
    struct statvfs fileSystem = {};
    if (stat(claim.directory.c_str(), &status) != 0 || statvfs(claim.directory.c_str(), &fileSystem) != 0 ||
        fileSystem.f_blocks == 0) {
        return;
    }
    auto storage = std::find_if(all.begin(), all.end(),
                                [&](const Storage& other) { return other.device == status.st_dev; });
    if (storage == all.end()) {
        const auto available = static_cast<std::uint64_t>(fileSystem.f_bavail) * fileSystem.f_frsize;
        storage = all.insert(all.end(), {status.st_dev, "", 0, available});
    }
    storage->directories += (storage->directories.empty() ? "" : ", ") + claim.directory;
    storage->need += claim.need;
    storage->available += claim.freed;
}

Obstacle noRoom(const Storage& storage, std::uint64_t need) {
    return {
        "no_room",
        "the file system at " + storage.directories + " has room for " + std::to_string(storage.available) +
            " bytes, and the installation needs " + std::to_string(need),
        "remove what is not needed there, " + std::to_string(need - storage.available) + " bytes at least",
        false};
}

}  // namespace

std::uint64_t storageFor(std::uint64_t bytes) {
    return roundedUp(bytes, kBlock) + kBlock;
}

std::vector<Obstacle> roomObstacles(const RoomFor& what) {
    const std::string& raw = UpgradeProc::storePart;
    const Claim claims[] = {
        {"/config", kConfigBytes, 0},
        {"/firmware", firmwareNeed(what), 0},
        {raw, what.entryBytes, freedByEmptying(raw)},
        {"/tmp", kTmpBytes, 0},
    };
    std::vector<Storage> all;
    for (const Claim& claim : claims) {
        enter(claim, all);
    }
    std::vector<Obstacle> obstacles;
    for (const Storage& storage : all) {
        const std::uint64_t need = storage.need + storage.need / kRecordShare;
        if (need > storage.available) {
            obstacles.push_back(noRoom(storage, need));
        }
    }
    return obstacles;
}

}  // namespace kavro::agent
