#include "tools/upgradectl/device_status.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "package/trailer.h"
#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/flash_drivers.h"
#include "tools/upgradectl/json_text.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

// By the answers of UPGRADE_get_state.
struct DeviceStateRow {
    int state;
    const char* name;  // for programs
    const char* text;
};

constexpr DeviceStateRow kDeviceStates[] = {
    {0, "idle", "idle"},
    {1, "running", "a run is in progress"},
    {2, "installed", "installed, awaits activation"},
    {3, "activated", "activated"},
};

constexpr const char* kUnknown = "unknown";

DeviceStateRow deviceState() {
    const int state = UPGRADE_get_state();
    for (const DeviceStateRow& row : kDeviceStates) {
        if (row.state == state) {
            return row;
        }
    }
    return {state, kUnknown, kUnknown};
}

std::string row(const std::string& name, const std::string& value) {
    constexpr std::size_t kNameColumns = 24;
    std::string text = name;
    text.resize(std::max(kNameColumns, name.size() + 1), ' ');
    return text + value;
}

std::string orUnknown(const std::string& text) {
    return text.empty() ? kUnknown : text;
}

// A negative part is that of what is about to be written: it stays when the writing does not come to its end.
std::string currentVersionText(const std::string& version) {
    std::string text = version;
    for (std::size_t at = text.find('-'); at != std::string::npos; at = text.find('-', at + 2)) {
        const std::size_t end = std::min(text.find_first_not_of("0123456789", at + 1), text.size());
        text.replace(at, end - at, "--");
    }
    return text == version ? orUnknown(version) : text + " (--: unfinished)";
}

// Empty where they cannot be read.
struct DeviceVersions {
    std::string factory;
    std::string current;
};

DeviceVersions deviceVersions() {
    DeviceVersions versions;
    UPGRADE_getIntervalVersionString(versions.factory);
    UPGRADE_get_cur_ver_str(versions.current);
    return versions;
}

void requireKnown(const DeviceVersions& versions) {
    if (versions.factory.empty() || versions.current.empty()) {
        throw Failure(ErrorCode::kOther, "the versions in '" + UpgradeProc::defaultCfg + "' cannot be read",
                      "restore the file: the four integers hw_version, mpu_version, mcu_version, bld_version",
                      loggedErrors());
    }
}

// What the getter would report, without using the record up: it is the application's to read, once. Empty when the
// record is damaged.
std::string recordedOutcome() {
    if (!COMMON_YR::isFileExist(UPGRADE_LAST_RUNTIME_FILE)) {
        return "none";
    }
    const std::string text = COMMON_YR::readFile2String(UPGRADE_LAST_RUNTIME_FILE);
    const bool isName = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
    return isName ? text : "";
}

struct PackageFile {
    std::string path;
    std::optional<long> bytes;  // nothing when there is none
    bool whole = false;
};

std::vector<PackageFile> packageFiles() {
    std::vector<PackageFile> files;
    for (const std::string& path :
         {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg, UpgradeProc::recvPkg}) {
        const long size = COMMON_YR::getFileSize(path.c_str());
        files.push_back({path, size < 0 ? std::nullopt : std::optional<long>(size),
                         static_cast<std::uint64_t>(size) == kavro::package::kPackageBytes});
    }
    return files;
}

std::string textOf(const PackageFile& file) {
    if (!file.bytes) {
        return "-";
    }
    return std::to_string(*file.bytes) + " bytes" + (file.whole ? "" : " (not a whole package)");
}

void writeStatus(const OwnOutput& output, const DeviceVersions& versions, const std::string& outcome) {
    output.writeLine(row("factory version", orUnknown(versions.factory)));
    output.writeLine(row("current version", currentVersionText(versions.current)));
    output.writeLine(row("state", deviceState().text));
    output.writeLine(row("last run", outcome.empty() ? std::string(kUnknown) + " (" +
                                                           UPGRADE_LAST_RUNTIME_FILE + " is damaged)"
                                                     : outcome));
    for (const PackageFile& file : packageFiles()) {
        output.writeLine(row(file.path, textOf(file)));
    }
}

Json::Value statusJson(const DeviceVersions& versions, const std::string& outcome) {
    Json::Value status;
    status["factory_version"] = textOrNull(versions.factory);
    status["current_version"] = textOrNull(versions.current);
    status["state"] = deviceState().name;
    status["last_run"] = textOrNull(outcome);
    status["packages"] = Json::arrayValue;
    for (const PackageFile& file : packageFiles()) {
        Json::Value entry;
        entry["path"] = file.path;
        entry["bytes"] = file.bytes ? Json::Value(Json::Int64{*file.bytes}) : Json::Value();
        entry["whole"] = file.whole;
        status["packages"].append(entry);
    }
    return status;
}

// The microcontroller's own answer, nothing when it gives none.
std::optional<int> microcontrollerVersion() {
    const int version = velGetMcuVersion(UpgradeProc::getInstance()->node);
    return version >= 0 ? std::optional<int>(version) : std::nullopt;
}

// The packages that the device keeps from one upgrade to the next, and their versions: empty when it is no package.
struct KeptPackage {
    std::string path;
    bool there = false;
    std::string version;
};

std::vector<KeptPackage> keptPackages() {
    std::vector<KeptPackage> kept;
    for (const std::string& path : {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg}) {
        kept.push_back({path, COMMON_YR::isFileExist(path.c_str()), kavro::package::readVersion(path)});
    }
    return kept;
}

void writeVersions(const OwnOutput& output, const DeviceVersions& versions,
                   std::optional<int> microcontroller) {
    output.writeLine(row("factory version", orUnknown(versions.factory)));
    output.writeLine(row("current version", currentVersionText(versions.current)));
    output.writeLine(
        row("microcontroller", microcontroller ? std::to_string(*microcontroller) : "no answer"));
    for (const KeptPackage& package : keptPackages()) {
        output.writeLine(row(package.path, package.there ? orUnknown(package.version) : "-"));
    }
}

Json::Value versionsJson(const DeviceVersions& versions, std::optional<int> microcontroller) {
    Json::Value value;
    value["factory_version"] = textOrNull(versions.factory);
    value["current_version"] = textOrNull(versions.current);
    value["microcontroller"] = microcontroller ? Json::Value(*microcontroller) : Json::Value();
    value["packages"] = Json::arrayValue;
    for (const KeptPackage& package : keptPackages()) {
        Json::Value entry;
        entry["path"] = package.path;
        entry["version"] = textOrNull(package.version);
        value["packages"].append(entry);
    }
    return value;
}

}  // namespace

void showStatus(const OwnOutput& output, bool consume, bool json) {
    const DeviceVersions versions = deviceVersions();
    const std::string outcome = recordedOutcome();
    if (json) {
        output.writeLine(jsonText(statusJson(versions, outcome)));
    } else {
        writeStatus(output, versions, outcome);
    }
    if (consume) {
        UPG_STS_LSAT_RT_E ignored = UPG_STS_LAST_RT_NONE;
        UPGRADE_get_status_last_runtime(&ignored);
    }
    requireKnown(versions);
    requireFlashDrivers();
}

void showVersions(const OwnOutput& output, bool json) {
    const std::optional<int> microcontroller = microcontrollerVersion();
    const DeviceVersions versions = deviceVersions();
    if (json) {
        output.writeLine(jsonText(versionsJson(versions, microcontroller)));
    } else {
        writeVersions(output, versions, microcontroller);
    }
    requireKnown(versions);
}

}  // namespace upgradectl
