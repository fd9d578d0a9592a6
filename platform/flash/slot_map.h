// The device's partitions, as far as the flash driver of the main processor needs them, checked for being
// complete.
#pragma once

#include <string>

#include "platform/config/platform_config.h"
#include "platform/flash/boot_control.h"

namespace kavro {

struct SlotMap {
    SlotNames slots;
    std::string target;  // the slot that is not running
    SlotPartitions targetPartitions;
    SlotPartitions runningPartitions;
    std::string bootloaderPartition;  // "" when the device has none of its own
    std::string bootStateFile;
};

// Takes the slot map from the configuration and the name of the running slot from its file. False, with the
// reason, unless there are exactly two slots of three partitions each, one of the two is running, and the
// boot state has a place. Looks at no partition.
[[nodiscard]] bool readSlotMap(const PlatformConfig& config, SlotMap& map, std::string& error);

}  // namespace kavro
