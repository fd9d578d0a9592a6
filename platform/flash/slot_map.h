// The device's partitions, as far as the flash driver of the main processor needs them, checked for being
// complete.
#pragma once

#include <string>
#include <vector>

#include "platform/config/platform_config.h"
#include "platform/flash/boot_control.h"

namespace kavro {

struct SlotMap {
    SlotNames slots;
    std::string target;  // the slot that is not running
    std::map<std::string, SlotPartitions> partitions;
    std::string bootloaderPartition;  // "" when the device has none of its own
    std::string bootEnvironmentConfig;
    std::string writtenSlotFile;
};

// Takes the slot map from the configuration and the name of the running slot from its file. False, with the
// reason, unless there are exactly two slots of three partitions each, under names that variables of the boot
// environment can have, one of the two is running, and the files of the boot state are named. Looks at no
// partition.
[[nodiscard]] bool readSlotMap(const PlatformConfig& config, SlotMap& map, std::string& error);

// Whether all partitions exist and no two of them are one and the same, by whatever paths, nor one of
// `reserved`. Distinct files and block devices are taken for distinct storage.
[[nodiscard]] bool checkPartitionsDistinct(const SlotMap& map, const std::vector<std::string>& reserved,
                                           std::string& error);

}  // namespace kavro
