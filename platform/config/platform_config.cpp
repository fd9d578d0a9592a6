#include "platform/config/platform_config.h"

#include "common/cancellation.h"
#include "platform/config/json_object.h"

namespace kavro {
namespace {

// One object of the file, under the names that lead to it. Reads what has the right type, and notes what has not.
class Section {
  public:
    Section(const Json::Value& jsonObject, std::string sectionName, std::vector<std::string>& wrong)
        : object(jsonObject), name(std::move(sectionName)), wrongMembers(wrong) {}

    [[nodiscard]] Section section(const std::string& key) const {
        const Json::Value& found = object[key];
        const bool usable = expect(found, found.isObject(), key, "an object");
        return {usable ? found : Json::Value::nullSingleton(), nameOf(key), wrongMembers};
    }
    void read(const char* key, std::string& value) const {
        const Json::Value& found = object[key];
        if (expect(found, found.isString(), key, "a string")) {
            value = found.asString();
        }
    }
    void read(const char* key, bool& value) const {
        const Json::Value& found = object[key];
        if (expect(found, found.isBool(), key, "true or false")) {
            value = found.asBool();
        }
    }
    void read(const char* key, long long& value) const {
        const Json::Value& found = object[key];
        if (expect(found, found.isInt64(), key, "an integer")) {
            value = found.asInt64();
        }
    }
    [[nodiscard]] std::vector<std::string> keys() const {
        return object.isNull() ? std::vector<std::string>() : object.getMemberNames();
    }

  private:
    [[nodiscard]] std::string nameOf(const std::string& key) const {
        return name.empty() ? key : name + "." + key;
    }
    bool expect(const Json::Value& found, bool fits, const std::string& key, const char* type) const {
        if (!fits && !found.isNull()) {
            wrongMembers.push_back(nameOf(key) + " must be " + type);
        }
        return fits;
    }

    const Json::Value& object;  // null stands for an empty one
    const std::string name;
    std::vector<std::string>& wrongMembers;
};

std::map<std::string, SlotPartitions> readSlots(const Section& slots) {
    std::map<std::string, SlotPartitions> result;
    for (const std::string& name : slots.keys()) {
        const Section slot = slots.section(name);
        for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
            slot.read(kSlotParts[part], result[name][part]);
        }
    }
    return result;
}

}  // namespace

PlatformConfig readPlatformConfig(const std::string& path) {
    const COMMON_YR::CancelHold hold;
    PlatformConfig config;
    const Json::Value json = readJsonObject(path, config.fault);
    const Section root(json, "", config.wrongMembers);

    const Section log = root.section("log");
    log.read("syslog", config.logToSyslog);
    log.read("stderr", config.logToStderr);
    log.read("file", config.logFile);
    log.read("file_bytes", config.logFileBytes);

    root.section("node").read("address", config.nodeAddress);

    const Section mpu = root.section("mpu");
    config.slots = readSlots(mpu.section("slots"));
    mpu.read("bootloader", config.bootloaderPartition);
    mpu.read("boot_environment", config.bootEnvironmentConfig);
    mpu.read("written_slot", config.writtenSlotFile);
    mpu.read("running_slot", config.runningSlotFile);

    const Section mcu = root.section("mcu");
    mcu.read("link", config.mcuLink);
    mcu.read("repair", config.mcuRepair);
    return config;
}

std::string platformConfigError(const PlatformConfig& config, const std::string& what) {
    return std::string(kPlatformConfigPath) + ": " + (config.fault.empty() ? what : config.fault);
}

std::string wrongMemberOf(const PlatformConfig& config, const std::string& section) {
    for (const std::string& member : config.wrongMembers) {
        if (member.rfind(section + ".", 0) == 0 || member.rfind(section + " ", 0) == 0) {
            return member;
        }
    }
    return {};
}

}  // namespace kavro
