// Companion microcontroller: reads the two S-record files and programs the application.
//
// Nothing reaches the microcontroller before both files are found good. Each operation opens the link for itself,
// so that other programs can ask for the version before, between and after.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/mcu_image.h"
#include "common/cancellation.h"
#include "common/flash_driver.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/flash/flash_progress.h"
#include "platform/flash/operation.h"
#include "platform/mcu/mcu_client.h"

namespace {

constexpr int kFailed = -1;
constexpr int kError = 1;
constexpr const char* kApplicationComponent = "mcu_flash_app.s19";
constexpr const char* kFlashDriverComponent = "mcu_flash_drv.s19";

enum class Stage { kIdle, kChecked, kWritten };

int report(const std::string& error) {
    printLog(kError, "UpgradeMcu: %s\n", error.c_str());
    return kFailed;
}

long long bytesOf(const std::vector<kavro::Segment>& segments) {
    std::size_t bytes = 0;
    for (const kavro::Segment& segment : segments) {
        bytes += segment.bytes.size();
    }
    return static_cast<long long>(bytes);
}

// Everything the driver knows. Shared with a running operation.
class McuFlasher {
  public:
    static int checkConfig() {
        std::string error;
        return kavro::checkMcuConfig(kavro::readPlatformConfig(), error) ? 0 : report(error);
    }

    int check(const std::string& directory) {
        std::string error;
        stage = Stage::kIdle;
        firmware = {};
        auto flashDriver = kavro::readFlashDriver(directory + "/" + kFlashDriverComponent, error);
        if (!flashDriver) {
            return report(error);
        }
        auto application = kavro::readApplication(directory + "/" + kApplicationComponent, error);
        if (!application) {
            return report(error);
        }
        firmware = {std::move(*flashDriver), std::move(*application)};
        const std::unique_ptr<kavro::McuClient> mcu = connect(error);
        if (mcu == nullptr || !mcu->probe(error)) {
            return report(error);
        }
        kavro::mcuProgress.begin(bytesOf(firmware.flashDriver) + bytesOf(firmware.application));
        stage = Stage::kChecked;
        return 0;
    }

    int write() {
        std::string error;
        if (std::exchange(stage, Stage::kIdle) != Stage::kChecked) {
            return report("upgrade without a successful preUpgrade");
        }
        const std::unique_ptr<kavro::McuClient> mcu = connect(error);
        const auto count = [](std::size_t bytes) { kavro::mcuProgress.add(static_cast<long long>(bytes)); };
        if (mcu == nullptr || !mcu->program(firmware, error, count)) {
            return report(error);
        }
        stage = Stage::kWritten;
        return 0;
    }

    int finish() {
        std::string error;
        if (std::exchange(stage, Stage::kIdle) != Stage::kWritten) {
            return report("postUpgrade without a successful upgrade");
        }
        const kavro::McuFirmware written = std::exchange(firmware, {});
        const std::unique_ptr<kavro::McuClient> mcu = connect(error);
        if (mcu == nullptr || !mcu->makeRun(kavro::applicationVersion(written.application).value(), error)) {
            return report(error);
        }
        return 0;
    }

    static int refuse() {
        return report("an operation of an earlier run is still at work: restart the device");
    }

    kavro::OperationControl control;

  private:
    std::unique_ptr<kavro::McuClient> connect(std::string& error) {
        return kavro::connectMcu(kavro::readPlatformConfig(), error, [this] { return control.keepGoing(); });
    }

    Stage stage = Stage::kIdle;
    kavro::McuFirmware firmware;
};

}  // namespace

struct UpgradeMcu::Impl {
    std::shared_ptr<McuFlasher> flasher = std::make_shared<McuFlasher>();
};

UpgradeMcu::UpgradeMcu() : UpgradeLib("upgradeMcu"), impl(std::make_unique<Impl>()) {}

UpgradeMcu::~UpgradeMcu() {
    impl->flasher->control.stopAndWait();
}

// Touches nothing: a microcontroller that does not answer must not keep the main processor from its upgrade.
int UpgradeMcu::init() {
    return kavro::runOperation(impl->flasher, [](McuFlasher&) { return McuFlasher::checkConfig(); });
}

int UpgradeMcu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    (void)withLoader, (void)mainProcessor;
    return kavro::runOperation(impl->flasher, [&](McuFlasher& flasher) { return flasher.check(path); });
}

int UpgradeMcu::upgrade() {
    return kavro::runOperation(impl->flasher, [](McuFlasher& flasher) { return flasher.write(); });
}

int UpgradeMcu::postUpgrade() {
    return kavro::runOperation(impl->flasher, [](McuFlasher& flasher) { return flasher.finish(); });
}

// The microcontroller runs its new application since postUpgrade: there is nothing to switch.
int UpgradeMcu::activate(bool on) {
    (void)on;
    return 0;
}

int UPGRADE_request_reboot() {
    const COMMON_YR::CancelHold hold;
    std::string error;
    const std::unique_ptr<kavro::McuClient> mcu = kavro::connectMcu(kavro::readPlatformConfig(), error);
    if (mcu == nullptr || !mcu->requestReset(error)) {
        printLog(kError, "UPGRADE_request_reboot: %s\n", error.c_str());
        return kFailed;
    }
    return 0;
}
