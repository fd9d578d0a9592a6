// The upgrade manager's interface to the device's main application: the flat UPGRADE_ functions and the
// controller behind them. Including this header gives the whole interface of the library.
//
// The life of the calls: UPGRADE_init once after start; UPGRADE_main_proc_fun for a received package;
// restart; UPGRADE_get_status_last_runtime; UPGRADE_activate, or UPGRADE_rollback_mpu to go back. While a run
// blocks its caller, other threads may poll it by the status queries and ask to give it up. Runs, activation
// and rollback must not overlap in one process; while another process makes one of them, each of them returns -1 at once
// (upgrade/device_lock.h). Nothing throws.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "common/export.h"
#include "common/flash_driver.h"
#include "common/message_node.h"
#include "common/utility.h"
#include "upgrade/device_lock.h"
#include "upgrade/upgrade_common.h"
#include "upgrade/upgrade_interface.h"
#include "upgrade/upgrade_proc_pkg.h"
#include "upgrade/upgrade_verify_components.h"
#include "upgrade/upgrade_version_ctrl.h"

// How far a run is. It only moves forward, one step at a time.
enum UpgradeStage : int {
    UPGRADE_STAGE_IDLE = 0,
    UPGRADE_STAGE_INIT = 1,             // the package was accepted
    UPGRADE_STAGE_START = 2,            // it was copied
    UPGRADE_STAGE_PROC_PKG_DONE = 3,    // it was checked and unpacked
    UPGRADE_STAGE_VERIFY_PKG_DONE = 4,  // its signatures verify
    UPGRADE_STAGE_SET_FLAG_DONE = 5,    // what to flash is decided; the last stage that can be given up
    UPGRADE_STAGE_FLASHING_START = 6,
    UPGRADE_STAGE_BACKUP_PACKAGE = 7,  // flashed; the package is being kept for rollback
    UPGRADE_STAGE_DONE = 8,
};

// A run's result as it is published. 5 is no state of a run: it is published once after a successful
// activation.
enum UpgradeState : int {
    UPGRADE_STATE_NONE = 0,
    UPGRADE_STATE_START = 1,
    UPGRADE_STATE_INPROGRESS_MPU = 2,
    UPGRADE_STATE_INPROGRESS_MCU = 3,
    UPGRADE_STATE_FINISH = 4,
    UPGRADE_STATE_FAIL = 6,
};

// The id of a status message.
inline constexpr uint32_t UPGRADE_STATUS_MSG_ID = 0x1065;

// The message that is published on the device's message node, little-endian.
struct UpgradeStatusMsg {
    uint32_t id;      // UPGRADE_STATUS_MSG_ID
    uint32_t length;  // of what follows the id: 12
    uint32_t kind;    // 2
    int32_t state;    // an UpgradeState, or 5
};
static_assert(sizeof(UpgradeStatusMsg) == kVelMsgBytes, "the message node carries messages of this size");

// The one controller: owns the message node and the flash drivers, and holds what is known of the current
// run.
//
// Fields are public because the library's own units and the device's diagnostics read them. running, giveup,
// stage and state are shared between the threads of a run; all others belong to the run, and an application
// reads them between runs only, or through the status queries.
class KAVRO_EXPORT UpgradeProc {
  public:
    // The names of the stages, as they are logged.
    static constexpr COMMON_YR::MapKeyString stageNames[] = {
        {UPGRADE_STAGE_IDLE, "IDLE"},
        {UPGRADE_STAGE_INIT, "INIT"},
        {UPGRADE_STAGE_START, "START"},
        {UPGRADE_STAGE_PROC_PKG_DONE, "PROC_PKG_DONE"},
        {UPGRADE_STAGE_VERIFY_PKG_DONE, "VERIFY_PKG_DONE"},
        {UPGRADE_STAGE_SET_FLAG_DONE, "SET_FLAG_DONE"},
        {UPGRADE_STAGE_FLASHING_START, "FLASHING_START"},
        {UPGRADE_STAGE_BACKUP_PACKAGE, "BACKUP_PACKAGE"},
        {UPGRADE_STAGE_DONE, "DONE"},
        {COMMON_YR::kMapKeyEnd, ""},
    };
    // The names of the states, as they are logged.
    static constexpr COMMON_YR::MapKeyString stateNames[] = {
        {UPGRADE_STATE_NONE, "NONE"},
        {UPGRADE_STATE_START, "START"},
        {UPGRADE_STATE_INPROGRESS_MPU, "INPROGRESS_MPU"},
        {UPGRADE_STATE_INPROGRESS_MCU, "INPROGRESS_MCU"},
        {UPGRADE_STATE_FINISH, "FINISH"},
        {UPGRADE_STATE_FAIL, "FAIL"},
        {COMMON_YR::kMapKeyEnd, ""},
    };
    static constexpr int kStageCount = UPGRADE_STAGE_DONE + 1;  // of UpgradeStage

    // The device's files, in the order in which they are built at load.
    static const std::string tmpCfg;       // saved copy of the current version file
    static const std::string upgradePkg;   // working copy of the package being installed
    static const std::string currentPkg;   // package of the installed firmware
    static const std::string recvPkg;      // received package
    static const std::string rollbackPkg;  // package kept for rolling back
    static const std::string storePart;    // work partition, wiped before each run
    static const std::string storePath;    // where a package is unpacked and flashed from
    static const std::string rollbackCfg;  // reserved for the versions of the rollback package
    static const std::string currentCfg;   // versions of what is flashed now
    static const std::string defaultCfg;   // factory versions

    // The controller, created at the first call and owned by the library until it is unloaded. Never null.
    // Serialised.
    static UpgradeProc* getInstance();

    // Destroys the flash drivers, then the message node.
    ~UpgradeProc();
    UpgradeProc(const UpgradeProc&) = delete;
    UpgradeProc& operator=(const UpgradeProc&) = delete;

    // Prepares a run: records the pessimistic outcome, checks the package's size, makes an empty work area
    // and reads the installed versions. True when the run may proceed.
    bool init(std::string pkgPath, bool rollback);
    // The counterpart of init. There is nothing to undo: always true.
    bool deinit();
    // Brings all fields of a run back to their initial values.
    void resetRun();

    // Logs and publishes stage and state, and notes when the stage was first published. Called after every
    // change of either, on the thread that changed it. Not a cancellation point.
    void onProgrameStatusChg();
    // Whether the last run of this process was successful.
    bool upgradeSucc();

    // Bookkeeping at the beginning of a run.
    void onUpgradeBegin();
    // Bookkeeping at its end: what is known of a failed run is reset.
    void onUpgradeEnd(bool succ);
    // Bookkeeping before flashing: removes the marker and the old rollback package.
    void _onUpgradeBegin();
    // Bookkeeping after flashing: records the outcome, removes the working copy, and sets the marker after a success.
    void _onUpgradeEnd(bool succ);
    // Creates or removes the marker of an installed upgrade that awaits activation.
    void setUpgraded(bool upgraded);
    // Remembers that this process has activated what its run has flashed.
    void setActivated(bool on);

    // Writes the current version file if anything but hw differs.
    void tryUpdateVersion(L_VERSION_T& version);
    // Enters what was flashed into it.
    void updateVersion(bool mpuDone, bool mcuDone);
    // Marks in it, by -1, what is about to be flashed.
    void clearVersion(bool mpuBegins, bool mcuBegins);
    // Called right before the MCU is programmed: clearVersion.
    void preUpgradeMcu();
    // Called when the MCU is done: updateVersion after a success.
    void postUpgradeMcu(bool success);
    // Called right before the MPU is flashed: nothing is to be done, its versions come with its root file system.
    void preUpgradeMpu();
    // Called when the MPU is done: nothing is to be done.
    void postUpgradeMpu(bool success);

    // Switches the link to the microcontroller on or off; true on success.
    bool ctrlSpi(bool on);

    // Called before an activation: nothing is to be done.
    void preActivate();
    // Switches the MPU's slot if one was flashed. 0 or -1.
    int activate();
    // Exchanges the package files and clears the marker, if the switch was ok.
    void postActivate(bool ok);
    // Whether an upgrade is flashed and not yet activated, with the version of its package.
    bool getUpgraded(L_VERSION_T& version);

    bool libReady = false;                       // the flash drivers are usable
    void* node = nullptr;                        // message node; may be null
    std::unique_ptr<UpgradeMcu> mcu;             // never null
    std::unique_ptr<UpgradeMpu> mpu;             // null when the MCU driver could not be initialised
    uint32_t reservedWord = 0;                   // not used
    std::atomic<bool> running{false};            // a run is in progress
    std::atomic<bool> giveup{false};             // it is asked to give up
    std::atomic<int> stage{UPGRADE_STAGE_IDLE};  // an UpgradeStage
    std::atomic<int> state{UPGRADE_STATE_NONE};  // an UpgradeState
    std::string workPkg;                         // the copy that the run works on, once it is made
    std::string inputPkg;                        // the package that was handed over
    bool isRollback = false;                     // the run goes back to the kept package
    UPGRADE_FLAG_T upgradeFlag;                  // what the run flashes, once it is decided
    L_VERSION_T targetVersion;                   // carried by the package
    L_VERSION_T currentVersion;                  // installed before the run
    double stageTick[kStageCount] =
        {};                     // ms of glbGetCurTickMs at which each stage was first published; 0: not yet
    int activateResult = -1;    // handed to UPGRADE_activatePartition, which ignores it
    uint64_t reservedLong = 0;  // not used
    bool flashModeFlag = true;  // flash both processors at the same time
    bool activated = false;     // what the last run flashed was activated
    int32_t reservedEnd = -99999998;  // not used

  private:
    UpgradeProc();
};

// Start-up: restores the factory package where one is present, creates the controller, checks the storage
// partitions and writes the current version file. fwDir receives the directory into which the application
// places packages. Returns 0; -1, logged, when the flash drivers are not usable (fwDir untouched) or a
// partition is missing or too small. Call it once before anything else; blocks for seconds where there is a
// factory package. While another process changes the device it restores and writes nothing.
KAVRO_EXPORT int UPGRADE_init(std::string& fwDir);

// Checks that the partitions for packages and for unpacking are there and large enough; negative when not.
KAVRO_EXPORT int UPGRADE_check_partitions();

// How an application cuts a package into blocks: 1048576 bytes each, 128 of them. Always 0.
KAVRO_EXPORT int UPGRADE_get_blk_info(long* blockSize, long* blockCount);

// Installs a package: a file of exactly 134217728 bytes, which is left as it is. It must lie outside of the work
// partition, which a run wipes, and must not be one of the files that a run makes itself (upgradePkg, rollbackPkg).
// Blocks until the run is over, minutes at most. Returns 0 when everything is flashed and awaits activation, -1
// otherwise: the log, the published state and UPGRADE_get_status_last_runtime say why.
KAVRO_EXPORT int UPGRADE_main_proc_fun(std::string pkgPath);

// Activates what the last run flashed, in the same process or after a restart. Returns 0; negative when
// nothing awaits activation or the switch failed. The new software runs from the next start on.
KAVRO_EXPORT int UPGRADE_activate();

// Goes back to the kept rollback package: a whole run (blocks as UPGRADE_main_proc_fun) followed by the
// activation, or the activation alone when the microcontroller already runs the package's version. Returns 0;
// -2989 when there is no usable rollback package; another negative value when the run or the activation
// failed.
KAVRO_EXPORT int UPGRADE_rollback_mpu();

// Asks the microcontroller to reset the main processor; returns what UPGRADE_request_reboot returns.
KAVRO_EXPORT int UPGRADE_request_mcu_reset_mpu();

// True when an upgrade is installed and awaits activation.
KAVRO_EXPORT bool UPGRADE_isUpgraded();

// 0 idle, 1 a run is in progress, 2 upgraded and awaiting activation, 3 activated. Any thread, no blocking.
KAVRO_EXPORT int UPGRADE_get_state();

// The current UpgradeStage. Any thread, no blocking.
KAVRO_EXPORT int UPGRADE_get_stage();

// An estimate of the run's progress, 0 to 100 percent, from the time spent in its stage. Any thread, no
// blocking.
KAVRO_EXPORT int UPGRADE_get_progress();

// Asks to give the current run up; honoured before flashing starts. Any thread, no blocking.
KAVRO_EXPORT void UPGRADE_set_giveup_upgrade_flag();

// What became of the last request: 0 nothing yet, 1 given up, 2 too late, flashing had begun. The value of a
// run stays until another run sets it. Pauses for half a second at each call, so that an answer to a request
// is there.
KAVRO_EXPORT int UPGRADE_get_giveup_sts();
