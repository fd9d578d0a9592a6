// The platform file, and what is made of it. An input is what the file of the running slot holds, a line, and the platform
// file.

#include <json/json.h>

#include "platform/config/platform_config.h"
#include "platform/flash/slot_map.h"
#include "platform/mcu/byte_link.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::kSlotParts;
using kavro::PlatformConfig;

Json::Value slotsOf(const PlatformConfig& config) {
    Json::Value slots(Json::objectValue);
    for (const auto& [name, partitions] : config.slots) {
        Json::Value& slot = slots[name] = Json::Value(Json::objectValue);
        for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
            slot[kSlotParts[part]] = partitions[part];
        }
    }
    return slots;
}

// The platform file that says what was read.
std::string written(const PlatformConfig& config) {
    Json::Value root;
    root["log"]["syslog"] = config.logToSyslog;
    root["log"]["stderr"] = config.logToStderr;
    root["log"]["file"] = config.logFile;
    root["log"]["file_bytes"] = static_cast<Json::Int64>(config.logFileBytes);
    root["node"]["address"] = config.nodeAddress;
    root["mpu"]["slots"] = slotsOf(config);
    root["mpu"]["bootloader"] = config.bootloaderPartition;
    root["mpu"]["boot_environment"] = config.bootEnvironmentConfig;
    root["mpu"]["written_slot"] = config.writtenSlotFile;
    root["mpu"]["running_slot"] = config.runningSlotFile;
    root["mcu"]["link"] = config.mcuLink;
    // What is no character stays as it is.
    Json::StreamWriterBuilder builder;
    builder["emitUTF8"] = true;
    return Json::writeString(builder, root);
}

bool isDefault(const PlatformConfig& config) {
    const PlatformConfig fresh;
    return config.wrongMembers.empty() && written(config) == written(fresh);
}

void requireConfig(const PlatformConfig& config) {
    require(config.fault.empty() || isDefault(config), "what cannot be read has the defaults");
    require(config.fault.find('\n') == std::string::npos, "a fault is one line");
    for (const std::string& member : config.wrongMembers) {
        require(member.find(" must be ") != std::string::npos, "a wrong member is told with what it must be");
    }
}

void requireRoundTrip(const PlatformConfig& config) {
    static fuzz::MemoryFile copy;
    const std::string text = written(config);
    copy.fill(text);
    const PlatformConfig again = kavro::readPlatformConfig(copy.path());
    require(again.fault.empty() && again.wrongMembers.empty(), "what is written can be read: " + again.fault);
    require(written(again) == text, "what is read is what was written");
}

void requireSlotMap(PlatformConfig config, const std::string& runningSlotFile) {
    // Nothing else of this machine is looked into.
    if (!config.runningSlotFile.empty()) {
        config.runningSlotFile = runningSlotFile;
    }
    kavro::SlotMap map;
    std::string error;
    const bool complete = kavro::readSlotMap(config, map, error);
    require(complete == error.empty(), "an error is told, and only then");
    if (!complete) {
        return;
    }
    require(config.fault.empty() && kavro::wrongMemberOf(config, "mpu").empty(), "a map needs a right file");
    require(map.partitions.size() == 2 && map.partitions.count(map.slots.running) == 1 &&
                map.partitions.count(map.target) == 1 && map.target != map.slots.running,
            "one of two slots is running, the other one is written to");
    for (const auto& [name, partitions] : map.partitions) {
        require(!name.empty(), "a slot has a name");
        for (const std::string& path : partitions) {
            require(!path.empty(), "a slot has all its partitions");
        }
    }
    require(!map.bootEnvironmentConfig.empty() && !map.writtenSlotFile.empty(),
            "the boot state has its files");
}

void requireLink(const std::string& link) {
    std::string error;
    const auto address = kavro::parseLinkAddress(link, error);
    require(address.has_value() == error.empty(), "an error is told, and only then");
    require(!address || address->path.front() == '/', "a link has a whole path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::MemoryFile runningSlot;
    static fuzz::MemoryFile file;
    fuzz::Input input(data, size);
    runningSlot.fill(input.line());
    file.fill(input.rest());

    const PlatformConfig config = kavro::readPlatformConfig(file.path());
    requireConfig(config);
    requireRoundTrip(config);
    requireSlotMap(config, runningSlot.path());
    requireLink(config.mcuLink);
    return 0;
}
