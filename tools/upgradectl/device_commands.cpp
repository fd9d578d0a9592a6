#include "tools/upgradectl/device_commands.h"

#include <algorithm>
#include <memory>
#include <string>

#include "tools/upgradectl/error_log.h"
#include "tools/upgradectl/package_trailer.h"
#include "tools/upgradectl/tool_error.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

constexpr COMMON_YR::MapKeyString kDeviceStates[] = {
    {0, "idle"},      {1, "a run is in progress"}, {2, "installed, awaits activation"},
    {3, "activated"}, {COMMON_YR::kMapKeyEnd, ""},
};

constexpr const char* kUnknown = "unknown";

std::string row(const std::string& name, const std::string& value) {
    constexpr std::size_t kNameColumns = 24;
    std::string text = name;
    text.resize(std::max(kNameColumns, name.size() + 1), ' ');
    return text + value;
}

// What the getter would report, without using the record up: it is the application's to read, once.
std::string recordedOutcome() {
    if (!COMMON_YR::isFileExist(UPGRADE_LAST_RUNTIME_FILE)) {
        return "none";
    }
    const std::string text = COMMON_YR::readFile2String(UPGRADE_LAST_RUNTIME_FILE);
    const bool isName =
        !text.empty() && text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
    return isName ? text : std::string(kUnknown) + " (" + UPGRADE_LAST_RUNTIME_FILE + " is damaged)";
}

std::string packageText(const std::string& path) {
    const long size = COMMON_YR::getFileSize(path.c_str());
    if (size < 0) {
        return "-";
    }
    const bool whole = static_cast<std::uint64_t>(size) == kPackageBytes;
    return std::to_string(size) + " bytes" + (whole ? "" : " (not a whole package)");
}

void showPackages(const OwnOutput& output) {
    for (const std::string& path :
         {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg, UpgradeProc::recvPkg}) {
        output.writeLine(row(path, packageText(path)));
    }
}

}  // namespace

void initDevice(const OwnOutput& output) {
    std::string packageDirectory;
    if (UPGRADE_init(packageDirectory) == 0) {
        output.writeLine("ready, packages go to " + packageDirectory);
        return;
    }
    if (packageDirectory.empty()) {
        throw ToolError(ExitCode::kOther, "the flash drivers are not ready",
                        "check the partitions and the microcontroller that /etc/kavro/platform.json names",
                        loggedErrors());
    }
    throw ToolError(ExitCode::kOther, "the file system at /firmware or at /raw is missing or too small",
                    "mount them: /firmware needs 320 MiB at least, /raw 1024 MiB", loggedErrors());
}

void showStatus(const OwnOutput& output, bool consume) {
    std::string factory = kUnknown;
    std::string current = kUnknown;
    const bool versionsKnown =
        UPGRADE_getIntervalVersionString(factory) == 0 && UPGRADE_get_cur_ver_str(current) == 0;
    output.writeLine(row("factory version", factory));
    output.writeLine(row("current version", current));
    output.writeLine(row("state", COMMON_YR::getKeyString(UPGRADE_get_state(), kDeviceStates)));
    output.writeLine(row("last run", recordedOutcome()));
    showPackages(output);
    if (consume) {
        UPG_STS_LSAT_RT_E ignored = UPG_STS_LAST_RT_NONE;
        UPGRADE_get_status_last_runtime(&ignored);
    }
    if (!versionsKnown) {
        throw ToolError(
            ExitCode::kOther, "the versions in '" + UpgradeProc::defaultCfg + "' cannot be read",
            "restore the file: the four integers hw_version, mpu_version, mcu_version, bld_version",
            loggedErrors());
    }
}

void activate(const OwnOutput& output) {
    const bool awaits = UPGRADE_isUpgraded();
    if (UPGRADE_activate() >= 0) {
        output.writeLine("activated");
        output.writeLine("  next: restart the device");
        return;
    }
    if (!awaits) {
        throw ToolError(ExitCode::kOther, "no installed package awaits activation",
                        "install one: upgradectl install PACKAGE", loggedErrors());
    }
    throw ToolError(ExitCode::kOther, "the device could not be switched to the installed software",
                    "mend what the device: lines say, then try again", loggedErrors());
}

void confirm(const OwnOutput& output) {
    const std::unique_ptr<UpgradeMpu>& driver = UpgradeProc::getInstance()->mpu;
    if (driver == nullptr || !driver->initOk) {
        throw ToolError(ExitCode::kOther, "the main processor's flash driver is not ready",
                        "mend what the device: lines say", loggedErrors());
    }
    if (driver->activate(false) < 0) {
        throw ToolError(ExitCode::kOther, "the running slot could not be confirmed",
                        "mend what the device: lines say, then try again before the device is restarted",
                        loggedErrors());
    }
    output.writeLine("the running slot is confirmed");
}

}  // namespace upgradectl
