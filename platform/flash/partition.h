// Writing firmware components into partitions: block devices on a device, image files of a fixed size in a
// twin. A partition is never created or resized, and what lies behind a component in it stays as it is.
//
// Functions report failure by their result and a text that names the file. They need a CancelHold around them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/raw_file.h"
#include "platform/config/written_slot.h"

namespace kavro {

// A component and the partition that takes it.
struct Placement {
    std::string component;  // path of the component's file
    std::string partition;  // path of the partition
    PartContent content;    // the component's size since checkPlacement, its digest since it was read
    struct stat seen = {};  // the component's file when it was checked
};

// Whether the component can be written: a readable regular file that is not empty, no larger than its
// partition, which is there, can be written to and is not in use (mounted). Writes nothing.
[[nodiscard]] bool checkPlacement(Placement& placement, std::string& error);

// Reads the whole component, which must still be the file that was checked.
[[nodiscard]] bool readComponent(Placement& placement, const KeepGoing& keepGoing, std::string& error);

// Copies the component to the start of the partition, block by block, and flushes it. Fails when the component's file is
// not as it was checked: before the first write, or, when it changes meanwhile, after the last one.
[[nodiscard]] bool writePlacement(Placement& placement, const KeepGoing& keepGoing, std::string& error);

// Whether the partition holds the content, as read back from storage.
[[nodiscard]] bool verifyPartition(const std::string& partition, const PartContent& content,
                                   const KeepGoing& keepGoing, std::string& error);

}  // namespace kavro
