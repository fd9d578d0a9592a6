// Flashing of the two processors by their drivers (UpgradeLib), and the outcome of the last run that is kept across a
// restart.
#pragma once

#include <cstdint>
#include <string>

#include "common/async_proc.h"
#include "common/export.h"
#include "common/flash_driver.h"
#include "upgrade/upgrade_version_ctrl.h"

// How the last run ended, kept in UPGRADE_LAST_RUNTIME_FILE by its name: "none", "upgrade_success",
// "upgrade_failure", "rollback_success", "rollback_failure".
enum UPG_STS_LSAT_RT_E : int {
    UPG_STS_LAST_RT_NONE = 0,
    UPG_STS_LAST_RT_UPGRADE_SUCCESS = 1,
    UPG_STS_LAST_RT_UPGRADE_FAILURE = 2,
    UPG_STS_LAST_RT_ROLLBACK_SUCCESS = 3,
    UPG_STS_LAST_RT_ROLLBACK_FAILURE = 4,
};

// Where the outcome is kept until it is asked for.
inline constexpr const char* UPGRADE_LAST_RUNTIME_FILE = "/config/upgrade_last_runtime";

// Records an outcome. True when the whole name is on storage; the file is as it was otherwise.
KAVRO_EXPORT bool UPGRADE_set_status_last_runtime(UPG_STS_LSAT_RT_E status);

// Tells the recorded outcome once: the file is removed. Returns 0 with *status set, UPG_STS_LAST_RT_NONE when
// there is no record; -1, *status UPG_STS_LAST_RT_NONE, when the record holds no known name.
KAVRO_EXPORT int UPGRADE_get_status_last_runtime(UPG_STS_LSAT_RT_E* status);

// The input of a flashing job.
struct UpgradeMpuMcuInput {
    int32_t type = 0;     // 0: MPU, 1: MCU; any other is refused
    std::string fwPath;   // directory that holds the firmware
    UPGRADE_FLAG_T flag;  // what of it to flash
};

// Runs the flashing jobs of the two processors side by side.
class KAVRO_EXPORT AsyncUpgradeMpuMcu : public COMMON_YR::AsyncProc<UpgradeMpuMcuInput, int> {
  public:
    using AsyncProc::AsyncProc;

    // Flashes what in.type names. Stores the result in out and returns it: 0, -1, or -1000 for an unknown
    // kind.
    int process(UpgradeMpuMcuInput& in, int& out) override;

    // Completion callback of the MPU's job: keeps its output for UPGRADE_mpu_mcu.
    static void mpuCb(int ret, int& out);
    // The same of the MCU's.
    static void mcuCb(int ret, int& out);
};

// Flashes what flag asks for from the directory fwPath: both processors at the same time, or one after the
// other when the controller's flashModeFlag is off. isRollback makes no difference. Returns 0; -1 when the
// sequential way failed; -992 when the jobs were not over after about six minutes (they go on), -1000 when
// the MPU failed, -999 when the MCU did. Blocks until then.
KAVRO_EXPORT int UPGRADE_mpu_mcu(std::string fwPath, UPGRADE_FLAG_T flag, bool isRollback);

// Makes the MPU's written slot the one to start from; the argument is ignored. Returns what the driver
// returns, -1 without a driver.
KAVRO_EXPORT int UPGRADE_activatePartition(int unused);
