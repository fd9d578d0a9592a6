#include "tools/upgradectl/device_commands.h"

#include <string>

#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/flash_drivers.h"
#include "tools/upgradectl/torn_activation.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

void initDevice(const OwnOutput& output) {
    const std::string completed = completeTornActivation();
    if (!completed.empty()) {
        output.writeLine(completed);
    }
    std::string packageDirectory;
    if (UPGRADE_init(packageDirectory) == 0) {
        output.writeLine("ready, packages go to " + packageDirectory);
        return;
    }
    requireFlashDrivers();
    throw Failure(ErrorCode::kOther, "the file system at /firmware or at /raw is missing or too small",
                  "mount them: /firmware needs 320 MiB at least, /raw 1024 MiB", loggedErrors());
}

void activate(const OwnOutput& output) {
    const bool awaits = UPGRADE_isUpgraded();
    if (UPGRADE_activate() >= 0) {
        output.writeLine("activated");
        output.writeLine("  next: restart the device");
        return;
    }
    requireFlashDrivers();  // without them no package could be installed either
    if (!awaits) {
        throw Failure(ErrorCode::kOther, "no installed package awaits activation",
                      "install one: upgradectl install PACKAGE", loggedErrors());
    }
    throw Failure(ErrorCode::kOther, "the device could not be switched to the installed software",
                  "mend what the device: lines say, then try again", loggedErrors());
}

void confirm(const OwnOutput& output) {
    // A driver of its own: the controller has none where that of the microcontroller, which is not needed here, is
    // not ready.
    UpgradeMpu driver;
    if (!driver.initOk) {
        throw Failure(ErrorCode::kOther, "the main processor's flash driver is not ready",
                      "mend what the device: lines say", loggedErrors());
    }
    if (driver.activate(false) < 0) {
        throw Failure(ErrorCode::kOther, "the running slot could not be confirmed",
                      "mend what the device: lines say, then try again before the device is restarted",
                      loggedErrors());
    }
    output.writeLine("the running slot is confirmed");
}

}  // namespace upgradectl
