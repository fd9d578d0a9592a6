// An entry of a package's archive.
#pragma once

#include <cstdint>
#include <string>

#include "common/export.h"

namespace kavro::package {

// What its header tells.
struct Entry {
    std::string name;  // as it stands in the archive
    std::string type;  // "file", "directory", "symbolic link", "hard link", "device", "fifo" or "unknown"
    std::uint64_t bytes = 0;  // of its contents
    bool ownerFits = true;    // owner and group are numbers that a file can have
    bool ownedByRoot = true;  // owner and group are 0, and by name either root or nobody
    unsigned mode = 0644;     // permissions, with set-user-ID, set-group-ID and sticky bit
};

// The name of the file that a device unpacks an entry to: "Image" for "./Image", "" for the directory that the archive was
// made of.
KAVRO_EXPORT std::string unpackedName(const Entry& entry);

}  // namespace kavro::package
