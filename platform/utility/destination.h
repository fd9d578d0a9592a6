// Where the content that is to be written goes.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

namespace kavro {

struct Destination {
    std::string path;  // with symbolic links followed, so that a link stays and what it names is replaced
    bool exists = false;
    struct stat status = {};  // when it exists

    bool isRegular() const { return exists && S_ISREG(status.st_mode); }
    // Whether it is something to write into as it stands: a device, a FIFO.
    bool isSpecial() const { return exists && !S_ISREG(status.st_mode); }
};

// Nothing (with errno set) for an empty path, a directory, a circle of links, or a path that cannot be looked
// up.
std::optional<Destination> locateDestination(const std::string& path);

// Whether the file is a mount point, which no other file can replace; false where the kernel does not tell.
bool isMountPoint(const std::string& path);

}  // namespace kavro
