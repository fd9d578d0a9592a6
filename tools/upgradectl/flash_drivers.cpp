#include "tools/upgradectl/flash_drivers.h"

#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

void requireFlashDrivers() {
    const UpgradeProc& controller = *UpgradeProc::getInstance();
    if (controller.libReady) {
        return;
    }
    if (controller.mpu == nullptr) {
        // The controller does not try the main processor's driver without the other one, so what that one lacks would
        // be told only when the first is mended. A driver logs it as it is made.
        const UpgradeMpu untried;
    }
    throw Failure(ErrorCode::kOther, "the flash drivers are not ready",
                  "mend what the device: lines say in /etc/kavro/platform.json", loggedErrors());
}

}  // namespace upgradectl
