// Main processor: writes the slot that is not running, and the bootloader when asked, and switches the boot
// slot.
//
// A run goes preUpgrade, upgrade, postUpgrade, activate. Until activate, the boot loader's state stays as it is,
// so a run that is cut off anywhere leaves the device with the running slot as the one to start. What was
// written is known from the record that postUpgrade makes when storage has been found to hold all of it; the
// boot loader learns it with the activation, and from then on starts the slot with no other content.
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/cancellation.h"
#include "common/flash_driver.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/config/written_slot.h"
#include "platform/flash/environment_boot_control.h"
#include "platform/flash/flash_progress.h"
#include "platform/flash/operation.h"
#include "platform/flash/partition.h"
#include "platform/flash/slot_map.h"

namespace {

constexpr int kFailed = -1;
constexpr int kError = 1;
constexpr int kNotice = 2;

constexpr const char* kBootloaderComponent = "bld_release.bin";

enum class Stage { kIdle, kChecked, kWritten };

int report(const std::string& error) {
    printLog(kError, "UpgradeMpu: %s\n", error.c_str());
    return kFailed;
}

void notice(const std::string& text) {
    printLog(kNotice, "UpgradeMpu: %s\n", text.c_str());
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
        boot = std::make_unique<kavro::EnvironmentBootControl>(map.bootEnvironmentConfig, map.slots);
        return true;
    }

    // Says so when the running slot is on trial: nobody else in the log would.
    void noticeTrial() {
        std::string error;
        kavro::BootState state;
        if (!boot->load(state, error)) {
            report(error);
        } else if (isRunningOnTrial(state)) {
            const bool counted = !state.starts.empty() && !state.startLimit.empty();
            notice("slot " + state.bootSlot + " is on trial" +
                   (counted ? ", start " + state.starts + " of " + state.startLimit : "") +
                   ": unless activate(false) confirms it, the boot loader goes back to slot " + map.target);
        }
    }

    int check(const std::string& directory, bool withLoader) {
        std::string error;
        stage = Stage::kIdle;
        if (!isUsable(error) || !checkDevice(error) || !place(directory, withLoader, error)) {
            return report(error);
        }
        for (kavro::Placement& placement : placements) {
            if (!kavro::checkPlacement(placement, error)) {
                return report(error);
            }
        }
        kavro::mpuProgress.begin(bytesToProcess());
        stage = Stage::kChecked;
        return 0;
    }

    int write() {
        std::string error;
        if (std::exchange(stage, Stage::kIdle) != Stage::kChecked) {
            return report("upgrade without a successful preUpgrade");
        }
        if (!kavro::removeWrittenSlot(map.writtenSlotFile, error) || !takeBackActivation(error) ||
            !writeSlot(error) || !writeBootloader(error)) {
            return report(error);
        }
        stage = Stage::kWritten;
        return 0;
    }

    // Compares everything when all of it is written: a write must not have damaged what came before it.
    int finish() {
        std::string error;
        if (std::exchange(stage, Stage::kIdle) != Stage::kWritten) {
            return report("postUpgrade without a successful upgrade");
        }
        if (!verify(placements.begin(), placements.end(), error)) {
            return report(error);
        }
        kavro::WrittenSlot written;
        written.slot = map.target;
        for (std::size_t part = 0; part < written.content.size(); ++part) {
            written.content[part] = placements[part].content;
        }
        return kavro::saveWrittenSlot(map.writtenSlotFile, written, error) ? 0 : report(error);
    }

    // The boot state is saved last. From then on the record only repeats it, and no longer counts.
    int activate() {
        std::string error;
        kavro::WrittenSlot next;
        kavro::BootState before;
        if (!isUsable(error) || !findNext(next, error) || !verifySlot(next, error) ||
            !boot->load(before, error)) {
            return report(error);
        }
        if (!boot->activate(next.slot, next.content, error)) {
            takeBackFailedActivation(before, next.slot);
            return report(error);
        }
        if (!kavro::removeWrittenSlot(map.writtenSlotFile, error)) {
            notice(error);
        }
        return 0;
    }

    // Another slot that was activated and not yet started stays the one to start.
    int confirm() {
        std::string error;
        kavro::BootState state;
        if (!isUsable(error) || !boot->load(state, error)) {
            return report(error);
        }
        if (!isRunningOnTrial(state)) {
            return 0;
        }
        return boot->keepRunning(error) ? 0 : report(error);
    }

    static int refuse() {
        return report("an operation of an earlier run is still at work: restart the device");
    }

    kavro::OperationControl control;

  private:
    bool isUsable(std::string& error) const {
        if (!usable) {
            error = "the device's slots are not known";
        }
        return usable;
    }

    [[nodiscard]] bool isRunningOnTrial(const kavro::BootState& state) const {
        return state.onTrial && state.bootSlot == map.slots.running;
    }

    // What must be in order before the first write, whatever is written.
    bool checkDevice(std::string& error) const {
        kavro::BootState state;
        std::vector<std::string> environment;
        if (!boot->load(state, error) || !boot->places(environment, error) ||
            !kavro::checkPartitionsDistinct(map, environment, error)) {
            return false;
        }
        if (!state.onTrial && state.bootSlot != map.slots.running) {
            error =
                map.bootEnvironmentConfig + ": the boot environment starts slot " + state.bootSlot +
                ", which is not on trial, but slot " + map.slots.running +
                " is said to be running: it is not clear which one may be written. Restart the device first";
            return false;
        }
        if (isRunningOnTrial(state)) {
            notice("slot " + map.target + " is written while slot " + state.bootSlot +
                   " is on trial: there is no slot to fall back to until it is complete");
        }
        return true;
    }

    // Says which component goes where. The bootloader comes last.
    bool place(const std::string& directory, bool withLoader, std::string& error) {
        placements.clear();
        const kavro::SlotPartitions& target = map.partitions.at(map.target);
        for (std::size_t part = 0; part < kavro::kSlotComponents.size(); ++part) {
            placements.push_back({directory + "/" + kavro::kSlotComponents[part], target[part], {}});
        }
        if (!withLoader) {
            return true;
        }
        if (map.bootloaderPartition.empty()) {
            error = std::string(kavro::kPlatformConfigPath) + R"(: "mpu" names no "bootloader")";
            return false;
        }
        placements.push_back({directory + "/" + kBootloaderComponent, map.bootloaderPartition, {}});
        return true;
    }

    // A slot that is half written must not be the one to start.
    bool takeBackActivation(std::string& error) {
        kavro::BootState state;
        if (!boot->load(state, error)) {
            return false;
        }
        return state.bootSlot != map.target || boot->keepRunning(error);
    }

    // A save can fail when all is written, in its flush. The slot would then be the one that starts next, and to try
    // once more would switch back. A running slot that is on trial stays so: it must not be confirmed by this.
    void takeBackFailedActivation(const kavro::BootState& before, const std::string& slot) {
        std::string error;
        const bool switches = before.bootSlot != slot && slot == map.target;
        if (switches && !isRunningOnTrial(before) && !takeBackActivation(error)) {
            notice("the activation of slot " + slot + " failed, and may not be taken back: " + error);
        }
    }

    bool writeSlot(std::string& error) {
        return std::all_of(placements.begin(), endOfSlot(), [&](kavro::Placement& placement) {
            return kavro::writePlacement(placement, keepGoing(), error);
        });
    }

    // There is only one: it is touched when storage is known to hold all of the slot, and when all of the new one can be
    // read. From its first block on nothing but an error ends the write.
    bool writeBootloader(std::string& error) {
        if (endOfSlot() == placements.end()) {
            return true;
        }
        kavro::Placement& loader = placements.back();
        const auto toTheEnd = [] { return true; };
        return verify(placements.begin(), endOfSlot(), error) &&
               kavro::readComponent(loader, keepGoing(), error) &&
               kavro::writePlacement(loader, toTheEnd, error);
    }

    // That write() and finish() write, and compare when it is written. With a bootloader the slot is compared before it, too,
    // and the bootloader itself read.
    [[nodiscard]] long long bytesToProcess() const {
        const bool withLoader = placements.size() > kavro::kSlotComponents.size();
        long long bytes = 0;
        for (const kavro::Placement& placement : placements) {
            bytes += placement.content.bytes;
        }
        return bytes * (withLoader ? 3 : 2);
    }

    using PlacementIterator = std::vector<kavro::Placement>::iterator;

    [[nodiscard]] PlacementIterator endOfSlot() { return placements.begin() + kavro::kSlotComponents.size(); }

    bool verify(PlacementIterator begin, PlacementIterator end, std::string& error) {
        return std::all_of(begin, end, [&](const kavro::Placement& placement) {
            return kavro::verifyPartition(placement.partition, placement.content, keepGoing(), error);
        });
    }

    // The slot to activate: the one that was written, or else the one that does not start next now.
    bool findNext(kavro::WrittenSlot& next, std::string& error) const {
        kavro::BootState state;
        std::optional<kavro::WrittenSlot> written;
        if (!boot->load(state, error)) {
            return false;
        }
        if (!kavro::readWrittenSlot(map.writtenSlotFile, written, error)) {
            error += "; a new upgrade replaces it";
            return false;
        }
        if (written && map.partitions.count(written->slot) == 0) {
            error = map.writtenSlotFile + ": \"" + written->slot +
                    "\" is none of the device's slots; a new upgrade " + "replaces the record";
            return false;
        }
        if (written && !kavro::isActivated(*written, state)) {
            next = *written;
            return true;
        }
        next.slot = map.slots.other(state.bootSlot);
        const auto known = state.content.find(next.slot);
        if (known == state.content.end()) {
            error = "slot " + next.slot +
                    " cannot be activated: nothing was written to it since the last activation, " +
                    "and the boot environment (" + map.bootEnvironmentConfig +
                    ") does not say what it must hold";
            return false;
        }
        next.content = known->second;
        return true;
    }

    bool verifySlot(const kavro::WrittenSlot& written, std::string& error) {
        for (std::size_t part = 0; part < written.content.size(); ++part) {
            if (!kavro::verifyPartition(map.partitions.at(written.slot)[part], written.content[part],
                                        keepGoing(), error)) {
                error.insert(0, "slot " + written.slot + " cannot be activated: ");
                return false;
            }
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
    std::vector<kavro::Placement> placements;  // the slot's parts in order, then the bootloader if asked for
};

}  // namespace

struct UpgradeMpu::Impl {
    std::shared_ptr<MpuFlasher> flasher = std::make_shared<MpuFlasher>();
};

UpgradeMpu::UpgradeMpu() : UpgradeLib("upgradeMpu"), impl(std::make_unique<Impl>()) {
    const COMMON_YR::CancelHold hold;
    initOk = impl->flasher->readDevice();
    if (initOk) {
        impl->flasher->noticeTrial();
    }
}

UpgradeMpu::~UpgradeMpu() {
    impl->flasher->control.stopAndWait();
}

int UpgradeMpu::init() {
    return kavro::runOperation(impl->flasher, [this](MpuFlasher& flasher) {
        initOk = flasher.readDevice();
        return initOk ? 0 : kFailed;
    });
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

int UpgradeMpu::activate(bool on) {
    return kavro::runOperation(
        impl->flasher, [on](MpuFlasher& flasher) { return on ? flasher.activate() : flasher.confirm(); });
}
