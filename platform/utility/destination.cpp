#include "platform/utility/destination.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "base/file_io.h"

namespace kavro {
namespace {

constexpr int kMaxLinks = 40;  // as the kernel has it

// What a symbolic link names, as seen from where the link is; empty on failure.
std::string linkTarget(const std::string& link) {
    char text[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), text, sizeof text);
    if (length <= 0) {
        return {};
    }
    const std::string target(text, static_cast<std::size_t>(length));
    return target.front() == '/' ? target : parentDirectory(link) + "/" + target;
}

}  // namespace

std::optional<Destination> locateDestination(const std::string& path) {
    Destination destination;
    destination.path = path;
    for (int links = 0; links <= kMaxLinks && !destination.path.empty(); ++links) {
        if (lstat(destination.path.c_str(), &destination.status) != 0) {
            return errno == ENOENT ? std::optional(destination) : std::nullopt;
        }
        if (S_ISDIR(destination.status.st_mode)) {
            errno = EISDIR;
            return std::nullopt;
        }
        if (!S_ISLNK(destination.status.st_mode)) {
            destination.exists = true;
            return destination;
        }
        destination.path = linkTarget(destination.path);
    }
    errno = destination.path.empty() ? ENOENT : ELOOP;
    return std::nullopt;
}

bool isMountPoint(const std::string& path) {
    struct statx status;
    return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace kavro
