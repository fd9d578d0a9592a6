#include "upgrade/upgrade_interface.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "upgrade/internal.h"
#include "upgrade/upgrade_api.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_interface";

constexpr COMMON_YR::MapKeyString lastRuntimeNames[] = {
    {UPG_STS_LAST_RT_NONE, "none"},
    {UPG_STS_LAST_RT_UPGRADE_SUCCESS, "upgrade_success"},
    {UPG_STS_LAST_RT_UPGRADE_FAILURE, "upgrade_failure"},
    {UPG_STS_LAST_RT_ROLLBACK_SUCCESS, "rollback_success"},
    {UPG_STS_LAST_RT_ROLLBACK_FAILURE, "rollback_failure"},
    {COMMON_YR::kMapKeyEnd, ""},
};

// The kinds of flashing jobs.
constexpr int32_t kFlashMpu = 0;
constexpr int32_t kFlashMcu = 1;

// Results of flashing both processors side by side.
constexpr int kMpuFailed = -1000;
constexpr int kMcuFailed = -999;
constexpr int kTimedOut = -992;
constexpr int kUnknownKind = -1000;

constexpr int kNotReported = -99999998;
constexpr int kWaitSeconds = 360;
constexpr int kWaitOver = -1;

// Written by a job that may outlive a timed-out wait, so possibly while the next run resets them.
std::atomic<int> mpuResult{kNotReported};
std::atomic<int> mcuResult{kNotReported};

// A job that outlived its wait must not tell for the next run: each job knows which one it is of.
std::atomic<unsigned> flashingNumber{0};
thread_local unsigned numberOfJob = 0;

void keepResult(std::atomic<int>& result, int value) {
    if (numberOfJob == flashingNumber) {
        result = value;
    }
}

AsyncUpgradeMpuMcu flashRunner("aUpgrade", nullptr);

}  // namespace

bool UPGRADE_set_status_last_runtime(UPG_STS_LSAT_RT_E status) {
    std::string name = COMMON_YR::getKeyString(status, lastRuntimeNames);
    return COMMON_YR::writeFile(UPGRADE_LAST_RUNTIME_FILE, name.data(), name.size(), false) ==
           static_cast<long>(name.size());
}

int UPGRADE_get_status_last_runtime(UPG_STS_LSAT_RT_E* status) {
    *status = UPG_STS_LAST_RT_NONE;
    if (!kavro::pathExists(UPGRADE_LAST_RUNTIME_FILE)) {
        return 0;
    }
    const std::string text = COMMON_YR::readFile2String(UPGRADE_LAST_RUNTIME_FILE);
    int key = UPG_STS_LAST_RT_NONE;
    const bool known = COMMON_YR::getStringKey(text.c_str(), key, lastRuntimeNames);
    if (known) {
        *status = static_cast<UPG_STS_LSAT_RT_E>(key);
    }
    // Known or not: an outcome is reported once.
    std::remove(UPGRADE_LAST_RUNTIME_FILE);
    return known ? 0 : -1;
}

namespace {

int flashMpu(UpgradeProc& proc, const std::string& fwPath, UPGRADE_FLAG_T flag, const char* function) {
    UpgradeMpu* driver = proc.mpu.get();
    if (driver == nullptr || driver->preUpgrade(fwPath, flag.bld, true) < 0) {
        UPGRADE_STEP_ERROR_AT(function, 69);
        return -1;
    }
    if (driver->upgrade() < 0) {
        UPGRADE_STEP_ERROR_AT(function, 75);
        return -1;
    }
    if (driver->postUpgrade() < 0) {
        UPGRADE_STEP_ERROR_AT(function, 81);
        return -1;
    }
    return 0;
}

int upgrade_mpu(const std::string& fwPath, UPGRADE_FLAG_T flag) {
    if (!flag.mpu) {
        UPGRADE_LOG(3, "%s: ret is %d;\n", __func__, 0);
        return 0;
    }
    UpgradeProc* proc = UpgradeProc::getInstance();
    proc->preUpgradeMpu();
    const int ret = flashMpu(*proc, fwPath, flag, __func__);
    UPGRADE_LOG(3, "%s: ret is %d;\n", __func__, ret);
    proc->postUpgradeMpu(ret >= 0);
    return ret;
}

// With the link to the microcontroller asked on; whoever called switches it off again, whatever became of it.
int flashMcuOverLink(UpgradeProc& proc, const char* function) {
    if (!proc.ctrlSpi(true)) {
        UPGRADE_STEP_ERROR_AT(function, 115);
        return -1;
    }
    sleep(1);
    UPGRADE_LOG(3, "UPGRADE_Mcu start ...\n");
    proc.preUpgradeMcu();
    if (proc.mcu->upgrade() < 0) {
        UPGRADE_STEP_ERROR_AT(function, 124);
        return -1;
    }
    if (proc.mcu->postUpgrade() < 0) {
        UPGRADE_STEP_ERROR_AT(function, 130);
        return -1;
    }
    return 0;
}

int flashMcu(UpgradeProc& proc, const std::string& fwPath, UPGRADE_FLAG_T flag, const char* function) {
    if (!flag.mcu) {
        UPGRADE_LOG(3, "no need to upgrade mcu!\n");
        return 0;
    }
    if (proc.mcu->preUpgrade(fwPath, true, false) < 0) {
        UPGRADE_STEP_ERROR_AT(function, 107);
        return -1;
    }
    proc.state.store(UPGRADE_STATE_INPROGRESS_MCU, std::memory_order_relaxed);
    proc.onProgrameStatusChg();
    const int ret = flashMcuOverLink(proc, function);
    proc.ctrlSpi(false);
    return ret;
}

int upgrade_mcu_local(const std::string& fwPath, UPGRADE_FLAG_T flag) {
    UPGRADE_LOG(3, "upgrade_mcu_local +++\n");
    UpgradeProc* proc = UpgradeProc::getInstance();
    const int ret = flashMcu(*proc, fwPath, flag, __func__);
    proc->postUpgradeMcu(ret >= 0);
    UPGRADE_LOG(3, "upgrade_mcu_local ---, ret is %d\n", ret);
    return ret;
}

int flashOneByOne(const std::string& fwPath, UPGRADE_FLAG_T flag) {
    if (upgrade_mpu(fwPath, flag) < 0) {
        return -1;
    }
    return upgrade_mcu_local(fwPath, flag) < 0 ? -1 : 0;
}

// Looks once a second until no job is listed; false when the jobs took too long. A last look that comes with
// the counter run out counts as too long, whatever it sees.
bool awaitJobs() {
    int counter = kWaitSeconds;
    while (flashRunner.jobCount() != 0 && counter != kWaitOver) {
        sleep(1);
        --counter;
    }
    return counter != kWaitOver;
}

int flashSideBySide(const std::string& fwPath, UPGRADE_FLAG_T flag) {
    constexpr const char* kFunction = "UPGRADE_mpu_mcu_async";
    UpgradeMpuMcuInput input;
    input.fwPath = fwPath;
    input.flag = flag;
    ++flashingNumber;
    mpuResult = kNotReported;
    mcuResult = kNotReported;
    input.type = kFlashMpu;
    flashRunner.run(input, &AsyncUpgradeMpuMcu::mpuCb, "MPU", nullptr);
    input.type = kFlashMcu;
    flashRunner.run(input, &AsyncUpgradeMpuMcu::mcuCb, "MCU", nullptr);
    if (!awaitJobs()) {
        UPGRADE_ERROR_AT(kFunction, 187, "UPGRADE_mpu_mcu_async timeout;\n");
        return kTimedOut;
    }
    if (mpuResult < 0) {
        UPGRADE_ERROR_AT(kFunction, 192, "UPGRADE_mpu_mcu_async mpu failed;\n");
        return kMpuFailed;
    }
    if (mcuResult < 0) {
        UPGRADE_ERROR_AT(kFunction, 197, "UPGRADE_mpu_mcu_async mcu failed;\n");
        return kMcuFailed;
    }
    return 0;
}

}  // namespace

int AsyncUpgradeMpuMcu::process(UpgradeMpuMcuInput& in, int& out) {
    numberOfJob = flashingNumber;
    switch (in.type) {
        case kFlashMpu:
            out = upgrade_mpu(in.fwPath, in.flag);
            break;
        case kFlashMcu:
            out = upgrade_mcu_local(in.fwPath, in.flag);
            break;
        default:
            out = kUnknownKind;
            break;
    }
    return out;
}

void AsyncUpgradeMpuMcu::mpuCb(int ret, int& out) {
    (void)ret;
    keepResult(mpuResult, out);
}

void AsyncUpgradeMpuMcu::mcuCb(int ret, int& out) {
    (void)ret;
    keepResult(mcuResult, out);
}

int UPGRADE_mpu_mcu(std::string fwPath, UPGRADE_FLAG_T flag, bool isRollback) {
    (void)isRollback;
    return UpgradeProc::getInstance()->flashModeFlag ? flashSideBySide(fwPath, flag)
                                                     : flashOneByOne(fwPath, flag);
}

int UPGRADE_activatePartition(int unused) {
    (void)unused;
    UpgradeMpu* driver = UpgradeProc::getInstance()->mpu.get();
    return driver == nullptr ? -1 : driver->activate(true);
}

namespace {

// An object of the base class, so that its operations stand in this library whether or not a driver uses
// them.
[[gnu::used]] UpgradeLib* makePlainDriver() {
    return new UpgradeLib();
}

}  // namespace
