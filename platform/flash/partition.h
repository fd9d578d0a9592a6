// Writing firmware components into partitions: block devices on a device, image files of a fixed size in a
// twin. A partition is never created or resized, and what lies behind a component in it stays as it is.
#pragma once

#include <string>

#include "platform/mcu/raw_file.h"

namespace kavro {

// A component and the partition that takes it.
struct Placement {
    std::string component;  // path of the component's file
    std::string partition;  // path of the partition
    long long bytes = 0;    // the component's size, set by checkPlacement
};

// Whether the component can be written: a readable regular file that is not empty, no larger than its
// partition, which is there, can be written to and is not in use (mounted). Sets bytes. Writes nothing.
[[nodiscard]] bool checkPlacement(Placement& placement, std::string& error);

// Whether two paths lead to one and the same file or device. False when either is missing.
[[nodiscard]] bool samePartition(const std::string& left, const std::string& right);

// Copies the component to the start of the partition, block by block, and flushes it.
[[nodiscard]] bool writePlacement(const Placement& placement, const KeepGoing& keepGoing, std::string& error);

// Whether the partition holds the component, as read back from storage.
[[nodiscard]] bool verifyPlacement(const Placement& placement, const KeepGoing& keepGoing,
                                   std::string& error);

}  // namespace kavro
