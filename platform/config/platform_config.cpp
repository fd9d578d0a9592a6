#include "platform/config/platform_config.h"

#include <json/json.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include "common/cancellation.h"

namespace kavro {
namespace {

// A device's file has a few hundred bytes; anything of this size is not one.
constexpr std::size_t kMaxFileBytes = 1 << 20;

// The file nests four levels deep. The parser recurses once a level and runs on threads with a 256 KiB stack.
constexpr int kMaxNesting = 32;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

std::string cannotBeRead(int errorNumber) {
    return "cannot be read: " + std::generic_category().message(errorNumber);
}

// The file's text; empty with the reason in `fault` when it cannot be read or is too long.
std::string readText(const std::string& path, std::string& fault) {
    const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
    if (file == nullptr) {
        fault = cannotBeRead(errno);
        return {};
    }

    std::string text;
    char block[4096];
    for (std::size_t count; (count = std::fread(block, 1, sizeof block, file.get())) > 0;) {
        text.append(block, count);
        if (text.size() > kMaxFileBytes) {
            fault = cannotBeRead(EFBIG);
            return {};
        }
    }
    if (std::ferror(file.get()) != 0) {
        fault = cannotBeRead(errno);
        return {};
    }
    return text;
}

// The document's root; null when it is no JSON or nested too deeply.
Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMaxNesting;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        Json::Value root;
        if (reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) {
            return root;
        }
    } catch (const Json::Exception&) {
        // Raised for nesting beyond the limit: as damaged as any other text that is not ours.
    }
    return {};
}

// The member of an object; null for a missing one, and for a parent that is no object.
const Json::Value& member(const Json::Value& parent, const char* key) {
    return parent.isObject() ? parent[key] : Json::Value::nullSingleton();
}

void readInto(std::string& value, const Json::Value& parent, const char* key) {
    const Json::Value& found = member(parent, key);
    if (found.isString()) {
        value = found.asString();
    }
}

void readInto(bool& value, const Json::Value& parent, const char* key) {
    const Json::Value& found = member(parent, key);
    if (found.isBool()) {
        value = found.asBool();
    }
}

void readInto(long long& value, const Json::Value& parent, const char* key) {
    const Json::Value& found = member(parent, key);
    if (found.isInt64()) {
        value = found.asInt64();
    }
}

std::map<std::string, SlotPartitions> readSlots(const Json::Value& slots) {
    std::map<std::string, SlotPartitions> result;
    if (!slots.isObject()) {
        return result;
    }
    for (const std::string& name : slots.getMemberNames()) {
        const Json::Value& slot = slots[name];
        if (!slot.isObject()) {
            continue;
        }
        SlotPartitions& partitions = result[name];
        readInto(partitions.kernel, slot, "kernel");
        readInto(partitions.deviceTree, slot, "dtb");
        readInto(partitions.rootFileSystem, slot, "rootfs");
    }
    return result;
}

}  // namespace

PlatformConfig readPlatformConfig(const std::string& path) {
    const COMMON_YR::CancelHold hold;
    PlatformConfig config;
    const Json::Value root = parse(readText(path, config.fault));
    if (config.fault.empty() && !root.isObject()) {
        config.fault = "is no JSON object";
    }

    const Json::Value& log = member(root, "log");
    readInto(config.logToSyslog, log, "syslog");
    readInto(config.logToStderr, log, "stderr");
    readInto(config.logFile, log, "file");
    readInto(config.logFileBytes, log, "file_bytes");

    readInto(config.nodeAddress, member(root, "node"), "address");

    const Json::Value& mpu = member(root, "mpu");
    config.slots = readSlots(member(mpu, "slots"));
    readInto(config.bootloaderPartition, mpu, "bootloader");
    readInto(config.bootStateFile, mpu, "boot_state");
    readInto(config.bootEnvironmentConfig, mpu, "boot_environment");
    readInto(config.writtenSlotFile, mpu, "written_slot");
    readInto(config.runningSlotFile, mpu, "running_slot");

    const Json::Value& mcu = member(root, "mcu");
    readInto(config.mcuFlashFile, mcu, "flash");
    readInto(config.mcuLink, mcu, "link");
    return config;
}

std::string platformConfigError(const PlatformConfig& config, const std::string& what) {
    return std::string(kPlatformConfigPath) + ": " + (config.fault.empty() ? what : config.fault);
}

}  // namespace kavro
