#include "agent/internal/device_checks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>

#include "agent/internal/busy.h"
#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_descriptor.h"

namespace kavro::agent {

namespace {

constexpr const char* kWrittenDirectories[] = {"/config", "/firmware", "/raw", "/tmp"};
constexpr mode_t kPrivateMode = 0600;

// What a file without a name fails with where the kernel or the file system does not know such files.
bool meansUnknown(int error) {
    return error == EOPNOTSUPP || error == EISDIR || error == ENOENT || error == EINVAL;
}

// Why nothing can be made in a directory; 0 when something can, or for want of room, which is told by itself. Permissions
// tell nothing of a file system that has turned to read-only for an error, so a file without a name is tried: it vanishes
// when it is closed, or with the power.
int writingError(const char* directory) {
    struct statvfs fileSystem = {};
    if (statvfs(directory, &fileSystem) != 0) {
        return errno;
    }
    if ((fileSystem.f_flag & ST_RDONLY) != 0) {
        return EROFS;
    }
    if (faccessat(AT_FDCWD, directory, W_OK | X_OK, AT_EACCESS) != 0) {
        return errno;
    }
    const FileDescriptor tried(open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, kPrivateMode));
    const int error = tried.valid() ? 0 : errno;
    return meansUnknown(error) || error == ENOSPC || error == EDQUOT ? 0 : error;
}

}  // namespace

// Whoever owns a device owns its root directory: root, on hardware; on an emulated one whoever has made it.
std::optional<Obstacle> ownerObstacle() {
    struct stat root = {};
    if (geteuid() == 0 || (stat("/", &root) == 0 && root.st_uid == geteuid())) {
        return std::nullopt;
    }
    return Obstacle{"not_root", "only root may change the device", "do it as root", false};
}

void requireOwner() {
    if (const std::optional<Obstacle> obstacle = ownerObstacle()) {
        throw Failure(ErrorCode::kOther, obstacle->text, obstacle->next);
    }
}

std::optional<Obstacle> busyObstacle() {
    UpgradeLockHolder holder;
    if (!UPGRADE_is_device_locked(&holder)) {
        return std::nullopt;
    }
    const Error error = busyError(holder);
    return Obstacle{kBusyName, error.text, error.next, false};
}

std::vector<Obstacle> writableObstacles() {
    std::vector<Obstacle> obstacles;
    for (const char* directory : kWrittenDirectories) {
        if (const int error = writingError(directory)) {
            obstacles.push_back({"not_writable",
                                 std::string("'") + directory + "' cannot be written: " + reasonOf(error),
                                 std::string("mount ") + directory + " where it can be written", false});
        }
    }
    return obstacles;
}

}  // namespace kavro::agent
