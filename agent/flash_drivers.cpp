#include "agent/flash_drivers.h"

#include "agent/device_log.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

Result<void> checkFlashDrivers() {
    const UpgradeProc& controller = *UpgradeProc::getInstance();
    if (controller.libReady) {
        return {};
    }
    if (controller.mpu == nullptr) {
        // The controller does not try the main processor's driver without the other one, so what that one lacks would
        // be told only when the first is fixed. A driver logs it as it is made.
        const UpgradeMpu untried;
    }
    return Error{ErrorCode::kOther,
                 "the flash drivers are not ready",
                 "mend what the device: lines say in /etc/kavro/platform.json",
                 loggedErrors(),
                 {}};
}

}  // namespace kavro::agent
