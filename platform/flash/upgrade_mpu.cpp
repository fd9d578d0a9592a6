// Main processor: writes the slot that is not running, and the bootloader when asked, and switches the boot
// slot.
//
// A run goes preUpgrade, upgrade, postUpgrade, activate. The slot counts as incomplete from before its first
// byte is written until postUpgrade has verified all of it, so a run that is cut off anywhere leaves the
// device with the running slot as the only one to start.
#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/cancellation.h"
#include "common/flash_driver.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/flash/file_boot_control.h"
#include "platform/flash/operation.h"
#include "platform/flash/partition.h"
#include "platform/flash/slot_map.h"

namespace {

constexpr int kFailed = -1;
constexpr int kError = 1;

struct ComponentName {
    const char* file;
    std::string kavro::SlotPartitions::*partition;
};

constexpr std::array<ComponentName, 3> kSlotComponents = {{
    {"Image", &kavro::SlotPartitions::kernel},
    {"cv22_kavro_qz7.dtb", &kavro::SlotPartitions::deviceTree},
    {"ext4", &kavro::SlotPartitions::rootFileSystem},
}};
constexpr const char* kBootloaderComponent = "bld_release.bin";

enum class Stage { kIdle, kChecked, kWritten };

int report(const std::string& error) {
    printLog(kError, "UpgradeMpu: %s\n", error.c_str());
    return kFailed;
}

// Everything the driver knows. Shared with a running operation.
class MpuFlasher {
  public:
    // Reads the device's slots. False, with the reason logged, when they are not usable.
    bool readDevice() {
        std::string error;
        stage = Stage::kIdle;
        usable = kavro::readSlotMap(kavro::readPlatformConfig(), map, error);
        if (!usable) {
            report(error);
            return false;
        }
        boot = std::make_unique<kavro::FileBootControl>(map.bootStateFile, map.slots);
        return true;
    }

    int check(const std::string& directory, bool withLoader) {
        stage = Stage::kIdle;
        if (!usable) {
            return report("the device's slots are not known");
        }
        std::string error;
        if (!place(directory, withLoader, error) || !checkPartitionsDistinct(error)) {
            return report(error);
        }
        for (kavro::Placement& placement : placements) {
            if (!kavro::checkPlacement(placement, error)) {
                return report(error);
            }
        }
        stage = Stage::kChecked;
        return 0;
    }

    int write() {
        if (std::exchange(stage, Stage::kIdle) != Stage::kChecked) {
            return report("upgrade without a successful preUpgrade");
        }
        std::string error;
        if (!boot->beginWriting(map.target, error)) {
            return report(error);
        }
        for (const kavro::Placement& placement : placements) {
            if (!kavro::writePlacement(placement, keepGoing(), error) ||
                !kavro::verifyPlacement(placement, keepGoing(), error)) {
                return report(error);
            }
        }
        stage = Stage::kWritten;
        return 0;
    }

    // Compares everything once more when all of it is written: a write must not have damaged what came before
    // it.
    int finish() {
        if (std::exchange(stage, Stage::kIdle) != Stage::kWritten) {
            return report("postUpgrade without a successful upgrade");
        }
        std::string error;
        for (const kavro::Placement& placement : placements) {
            if (!kavro::verifyPlacement(placement, keepGoing(), error)) {
                return report(error);
            }
        }
        if (!boot->finishWriting(map.target, error)) {
            return report(error);
        }
        return 0;
    }

    int activate() {
        std::string error;
        if (!usable) {
            return report("the device's slots are not known");
        }
        return boot->activate(error) ? 0 : report(error);
    }

    kavro::OperationControl control;

  private:
    // Says which component goes where. The bootloader comes last: it has one partition only, so it is touched
    // when everything else has gone well.
    bool place(const std::string& directory, bool withLoader, std::string& error) {
        placements.clear();
        for (const ComponentName& component : kSlotComponents) {
            placements.push_back(
                {directory + "/" + component.file, map.targetPartitions.*component.partition, 0});
        }
        if (!withLoader) {
            return true;
        }
        if (map.bootloaderPartition.empty()) {
            error = std::string(kavro::kPlatformConfigPath) + R"(: "mpu" names no "bootloader")";
            return false;
        }
        placements.push_back({directory + "/" + kBootloaderComponent, map.bootloaderPartition, 0});
        return true;
    }

    // No partition may be written twice, and none of the running slot's at all.
    bool checkPartitionsDistinct(std::string& error) const {
        std::vector<std::string> others;
        others.reserve(2 * kSlotComponents.size() + 1);
        for (const ComponentName& component : kSlotComponents) {
            others.push_back(map.runningPartitions.*component.partition);
        }
        for (const kavro::Placement& placement : placements) {
            for (const std::string& other : others) {
                if (placement.partition == other || kavro::samePartition(placement.partition, other)) {
                    error = std::string(kavro::kPlatformConfigPath) + ": " + placement.partition + " and " +
                            other + " are the same partition";
                    return false;
                }
            }
            others.push_back(placement.partition);
        }
        return true;
    }

    kavro::KeepGoing keepGoing() {
        return [this] { return control.keepGoing(); };
    }

    bool usable = false;
    Stage stage = Stage::kIdle;
    kavro::SlotMap map;
    std::unique_ptr<kavro::BootControl> boot;
    std::vector<kavro::Placement> placements;
};

}  // namespace

struct UpgradeMpu::Impl {
    std::shared_ptr<MpuFlasher> flasher = std::make_shared<MpuFlasher>();
};

UpgradeMpu::UpgradeMpu() : UpgradeLib("upgradeMpu"), impl(std::make_unique<Impl>()) {
    const COMMON_YR::CancelHold hold;
    initOk = impl->flasher->readDevice();
}

UpgradeMpu::~UpgradeMpu() {
    impl->flasher->control.stopAndWait();
}

int UpgradeMpu::init() {
    const COMMON_YR::CancelHold hold;
    initOk = impl->flasher->readDevice();
    return initOk ? 0 : kFailed;
}

int UpgradeMpu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    (void)mainProcessor;
    return kavro::runOperation(impl->flasher,
                               [&](MpuFlasher& flasher) { return flasher.check(path, withLoader); });
}

int UpgradeMpu::upgrade() {
    return kavro::runOperation(impl->flasher, [](MpuFlasher& flasher) { return flasher.write(); });
}

int UpgradeMpu::postUpgrade() {
    return kavro::runOperation(impl->flasher, [](MpuFlasher& flasher) { return flasher.finish(); });
}

// Switching off is not a thing that a slot can do: activate(false) changes nothing.
int UpgradeMpu::activate(bool on) {
    if (!on) {
        return 0;
    }
    return kavro::runOperation(impl->flasher, [](MpuFlasher& flasher) { return flasher.activate(); });
}
