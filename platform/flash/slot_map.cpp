#include "platform/flash/slot_map.h"

#include <sys/stat.h>

#include <cerrno>
#include <sstream>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "common/utility.h"

namespace kavro {
namespace {

// The members of "mpu" that must be there.
struct RequiredMember {
    const char* name;
    std::string PlatformConfig::*value;
};

constexpr RequiredMember kRequiredMembers[] = {
    {"boot_environment", &PlatformConfig::bootEnvironmentConfig},
    {"written_slot", &PlatformConfig::writtenSlotFile},
    {"running_slot", &PlatformConfig::runningSlotFile},
};

// What the word of a kernel command line that names the running slot begins with.
constexpr const char* kCommandLineWord = "boot_slot=";

bool fail(const std::string& what, std::string& error) {
    error = std::string(kPlatformConfigPath) + ": " + what;
    return false;
}

bool checkMembers(const PlatformConfig& config, std::string& error) {
    if (!config.fault.empty()) {
        return fail(config.fault, error);
    }
    if (const std::string wrong = wrongMemberOf(config, "mpu"); !wrong.empty()) {
        return fail(wrong, error);
    }
    if (config.slots.size() != kSlotCount) {
        return fail("\"mpu\" needs two \"slots\", there are " + std::to_string(config.slots.size()), error);
    }
    for (const RequiredMember& member : kRequiredMembers) {
        if ((config.*member.value).empty()) {
            return fail("\"mpu\" names no \"" + std::string(member.name) + "\"", error);
        }
    }
    return true;
}

bool isVariableName(const std::string& name) {
    return !name.empty() &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") ==
               std::string::npos;
}

bool checkSlots(const PlatformConfig& config, std::string& error) {
    for (const auto& [slot, partitions] : config.slots) {
        if (!isVariableName(slot)) {
            return fail("the slot name \"" + slot + "\" may have letters, digits, '_' and '-' only", error);
        }
        for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
            if (partitions[part].empty()) {
                return fail("slot \"" + slot + "\" names no \"" + kSlotParts[part] + "\"", error);
            }
        }
    }
    return true;
}

// The slot's name, alone or as a word of a kernel command line, of which the last one counts.
std::string runningSlotIn(const std::string& text) {
    std::istringstream words(text);
    std::string name;
    std::string word;
    for (int count = 0; words >> word; ++count) {
        if (word.rfind(kCommandLineWord, 0) == 0) {
            name = word.substr(std::string(kCommandLineWord).size());
        } else if (count == 0) {
            name = word;
        }
    }
    return name;
}

bool readRunningSlot(const PlatformConfig& config, SlotMap& map, std::string& error) {
    const std::string running = runningSlotIn(COMMON_YR::readFile2String(config.runningSlotFile.c_str()));
    if (running.empty()) {
        error = config.runningSlotFile +
                ": does not tell the running slot: it is missing, not readable or empty. It is to be written "
                "at each start";
        return false;
    }
    if (config.slots.count(running) == 0) {
        error =
            config.runningSlotFile + ": the running slot \"" + running + "\" is none of the device's slots";
        return false;
    }
    map.slots.running = running;
    return true;
}

// A partition under the name that the configuration gives it.
struct NamedPartition {
    std::string name;
    std::string path;
};

std::vector<NamedPartition> namedPartitions(const SlotMap& map) {
    std::vector<NamedPartition> named;
    for (const auto& [slot, partitions] : map.partitions) {
        for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
            named.push_back({"mpu.slots." + slot + "." + kSlotParts[part], partitions[part]});
        }
    }
    if (!map.bootloaderPartition.empty()) {
        named.push_back({"mpu.bootloader", map.bootloaderPartition});
    }
    return named;
}

bool isSameStorage(const std::string& left, const std::string& right) {
    struct stat leftStatus {};
    struct stat rightStatus {};
    if (::stat(left.c_str(), &leftStatus) != 0 || ::stat(right.c_str(), &rightStatus) != 0) {
        return false;
    }
    if (S_ISBLK(leftStatus.st_mode) && S_ISBLK(rightStatus.st_mode)) {
        return leftStatus.st_rdev == rightStatus.st_rdev;
    }
    return isSameFile(leftStatus, rightStatus);
}

}  // namespace

bool readSlotMap(const PlatformConfig& config, SlotMap& map, std::string& error) {
    if (!checkMembers(config, error) || !checkSlots(config, error) || !readRunningSlot(config, map, error)) {
        return false;
    }
    map.slots.names = {config.slots.begin()->first, config.slots.rbegin()->first};
    map.target = map.slots.other(map.slots.running);
    map.partitions = config.slots;
    map.bootloaderPartition = config.bootloaderPartition;
    map.bootEnvironmentConfig = config.bootEnvironmentConfig;
    map.writtenSlotFile = config.writtenSlotFile;
    return true;
}

bool checkPartitionsDistinct(const SlotMap& map, const std::vector<std::string>& reserved,
                             std::string& error) {
    std::vector<NamedPartition> others;
    others.reserve(reserved.size() + map.partitions.size() * kSlotParts.size() + 1);
    for (const std::string& path : reserved) {
        others.push_back({map.bootEnvironmentConfig, path});
    }
    for (const NamedPartition& partition : namedPartitions(map)) {
        struct stat status {};
        if (::stat(partition.path.c_str(), &status) != 0) {
            return fail(fileError(partition.name, "there is no partition " + partition.path, errno), error);
        }
        for (const NamedPartition& other : others) {
            if (isSameStorage(partition.path, other.path)) {
                return fail(other.name + " (" + other.path + ") and " + partition.name + " (" +
                                partition.path + ") are the same partition",
                            error);
            }
        }
        others.push_back(partition);
    }
    return true;
}

}  // namespace kavro
