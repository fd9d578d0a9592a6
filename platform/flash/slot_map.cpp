#include "platform/flash/slot_map.h"

#include <array>

#include "common/utility.h"

namespace kavro {
namespace {

struct PartitionKey {
    const char* name;
    std::string SlotPartitions::*path;
};

constexpr std::array<PartitionKey, 3> kPartitionKeys = {{
    {"kernel", &SlotPartitions::kernel},
    {"dtb", &SlotPartitions::deviceTree},
    {"rootfs", &SlotPartitions::rootFileSystem},
}};

bool fail(const std::string& what, std::string& error) {
    error = std::string(kPlatformConfigPath) + ": " + what;
    return false;
}

std::string trimmed(const std::string& text) {
    constexpr const char* kSpaces = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kSpaces);
    if (begin == std::string::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kSpaces) - begin + 1);
}

bool checkPartitionKeys(const PlatformConfig& config, std::string& error) {
    for (const auto& [slot, partitions] : config.slots) {
        for (const PartitionKey& key : kPartitionKeys) {
            if ((partitions.*key.path).empty()) {
                return fail("slot \"" + slot + "\" names no \"" + key.name + "\"", error);
            }
        }
    }
    return true;
}

bool readRunningSlot(const PlatformConfig& config, SlotMap& map, std::string& error) {
    if (config.runningSlotFile.empty()) {
        return fail("\"mpu\" names no \"running_slot\"", error);
    }
    const std::string running = trimmed(COMMON_YR::readFile2String(config.runningSlotFile.c_str()));
    if (config.slots.count(running) == 0) {
        error =
            config.runningSlotFile + ": the running slot \"" + running + "\" is none of the device's slots";
        return false;
    }
    map.slots.running = running;
    return true;
}

}  // namespace

bool readSlotMap(const PlatformConfig& config, SlotMap& map, std::string& error) {
    if (!config.fault.empty()) {
        return fail(config.fault, error);
    }
    if (config.slots.size() != kSlotCount) {
        return fail("\"mpu\" needs two \"slots\", there are " + std::to_string(config.slots.size()), error);
    }
    if (config.bootStateFile.empty()) {
        return fail("\"mpu\" names no \"boot_state\"", error);
    }
    if (!checkPartitionKeys(config, error) || !readRunningSlot(config, map, error)) {
        return false;
    }
    map.slots.names = {config.slots.begin()->first, config.slots.rbegin()->first};
    map.target = map.slots.other(map.slots.running);
    map.targetPartitions = config.slots.at(map.target);
    map.runningPartitions = config.slots.at(map.slots.running);
    map.bootloaderPartition = config.bootloaderPartition;
    map.bootStateFile = config.bootStateFile;
    return true;
}

}  // namespace kavro
