// The flash drivers of the two processors: what the upgrade manager calls to write firmware and to switch to
// it.
//
// libflash_drivers.so implements UpgradeMpu, UpgradeMcu and UPGRADE_request_reboot; an engineer with another
// board implements these three and touches nothing else. A driver never throws and reports failure by a
// negative result. The two drivers are used on two threads at the same time, each by one thread at a time;
// its operations block until their work is done. The threads are never cancelled and have a stack of 256 KiB.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "common/export.h"

namespace COMMON_YR {

// Whether an object can be used, for those that cannot say so when they are made.
struct InitOk {
    bool initOk = false;  // whether the object is usable
};

}  // namespace COMMON_YR

// The interface of a flash driver. Its operations are inline so that a driver library stands on its own.
class KAVRO_EXPORT UpgradeLib : public COMMON_YR::InitOk {
  public:
    // driverName is for logs.
    explicit UpgradeLib(std::string driverName = {}) : name(std::move(driverName)) {}
    virtual ~UpgradeLib() = default;
    UpgradeLib(const UpgradeLib&) = delete;
    UpgradeLib& operator=(const UpgradeLib&) = delete;

    // Names the directory that holds the firmware.
    virtual void setFwPath(std::string path) { fwPath = std::move(path); }

    // Prepares the driver. Negative when it cannot be used. May be called again.
    virtual int init() { return 0; }

    // Takes the firmware from the directory path and checks whatever can be checked before the first write;
    // the MPU's components are read only when they are written.
    // What the device runs stays as it is. Called with mainProcessor true for the MPU, false for the MCU.
    // withLoader asks the MPU to write the bootloader too; for the MCU, which is always programmed by its
    // flash driver, it is true.
    virtual int preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
        (void)path, (void)withLoader, (void)mainProcessor;
        return 0;
    }

    // Writes the firmware that preUpgrade has checked. After a failure the device still starts what it runs.
    virtual int upgrade() { return 0; }

    // Finishes after writing: verifies what storage holds, and remembers it over a restart. The new firmware is not
    // yet the one to start.
    virtual int postUpgrade() { return 0; }

    // For the MPU. activate(true) makes the written slot, or the other slot when none was written since the last
    // activation, the one to start from. It is refused when storage no longer holds what was written. A slot that
    // does not run yet is on trial from then on: the boot loader goes back to the other slot unless it is confirmed
    // within a few starts. activate(false), called from the new slot, confirms it; where the running slot is not on
    // trial it changes nothing and returns 0. Either change lasts over a power cut once it returns 0.
    virtual int activate(bool on) {
        (void)on;
        return 0;
    }

    std::string name;    // the driver's own name, for logs
    std::string fwPath;  // set by setFwPath
    int reserved = -1;   // not used
};

// Main processor: kernel, device tree and root file system in one of two slots, and the bootloader.
// initOk is set by the constructor when the device's slots are known. The constructor logs a notice when the running
// slot is on trial.
class KAVRO_EXPORT UpgradeMpu : public UpgradeLib {
  public:
    UpgradeMpu();
    ~UpgradeMpu() override;
    int init() override;
    int preUpgrade(std::string path, bool withLoader, bool mainProcessor) override;
    int upgrade() override;
    int postUpgrade() override;
    int activate(bool on) override;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// Companion microcontroller: the application and the flash driver that programs it, as two S-record files.
// initOk is set by whoever called init() when that succeeded; init() only looks at the configuration. upgrade()
// needs the programming link, which velSpiDevCtrl switches on, and leaves the microcontroller without an
// application when it fails after the erasing. postUpgrade() follows within 5 s and starts the new one.
class KAVRO_EXPORT UpgradeMcu : public UpgradeLib {
  public:
    UpgradeMcu();
    ~UpgradeMcu() override;
    int init() override;
    int preUpgrade(std::string path, bool withLoader, bool mainProcessor) override;
    int upgrade() override;
    int postUpgrade() override;
    int activate(bool on) override;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// Asks the microcontroller to reset the main processor. Returns 0, negative when it could not be asked. The
// reset follows a moment later; the caller should have flushed what it wants kept.
KAVRO_EXPORT int UPGRADE_request_reboot();
