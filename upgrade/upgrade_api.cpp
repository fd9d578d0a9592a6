#include "upgrade/upgrade_api.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>

#include "upgrade/device_lock.h"
#include "upgrade/internal.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_api";

constexpr auto kRelaxed = std::memory_order_relaxed;

// ---------------------------------------------------------------------------------------------------------------------
// Files, records and tables
// ---------------------------------------------------------------------------------------------------------------------

constexpr const char* kFirmwareDir =
    "/firmware";  // of all packages; wiped as a whole when a copy into it fails
constexpr const char* kUpgradedMarker = "/config/upgraded";
constexpr const char* kExchangePath = "/firmware/temp";  // in between while two packages change places

constexpr const char* kOriginPackage = "/etc/kavro/origin.pkg.tar.gz";
constexpr const char* kOriginMd5File = "/etc/kavro/origin_pkg_md5sum.txt";
constexpr const char* kOriginUnpacked = "/firmware/origin.pkg";
constexpr size_t kMd5TextLength = 32;

constexpr long kBlockBytes = 1048576;
constexpr long kBlockCount = 128;
constexpr long kPackageBytes = kBlockBytes * kBlockCount;

constexpr int MCU_VERSION_UNKNOWN = -99999998;

constexpr unsigned kNodePeriodUs = 200000;
constexpr unsigned kCancelPollUs = 1000;
constexpr unsigned kCancelPauseUs = 500000;
constexpr unsigned kGiveupAnswerPauseUs = 500000;
constexpr unsigned kStepPauseSeconds = 1;

// The words of a status message before the state, the same in every message.
constexpr UpgradeStatusMsg kStatusMsgTemplate = {UPGRADE_STATUS_MSG_ID, 12, 2, UPGRADE_STATE_NONE};
constexpr int32_t kStateActivated = 5;

// What UPGRADE_get_giveup_sts answers.
constexpr int kGivenUp = 1;
constexpr int kTooLateToGiveUp = 2;

std::mutex instanceMutex;

// One run at a time: these are empty between runs.
std::thread nodeThread;
std::thread workerThread;
std::thread cancelThread;

std::atomic<int> giveupStatus{0};
std::atomic<int> mcuVersionCache{MCU_VERSION_UNKNOWN};

// How a run's time is spread over its stages.
struct UpgradeProgressRow {
    int32_t stage;
    int32_t sharePercent;
    double expectedSeconds;
};

UpgradeProgressRow progressTable[] = {
    {UPGRADE_STAGE_IDLE, 0, 1.0},
    {UPGRADE_STAGE_INIT, 7, 10.0},
    {UPGRADE_STAGE_START, 20, 30.0},
    {UPGRADE_STAGE_PROC_PKG_DONE, 3, 5.0},
    {UPGRADE_STAGE_VERIFY_PKG_DONE, 0, 1.0},
    {UPGRADE_STAGE_SET_FLAG_DONE, 0, 1.0},
    {UPGRADE_STAGE_FLASHING_START, 65, 360.0},  // the time is set anew at each query
    {UPGRADE_STAGE_BACKUP_PACKAGE, 5, 8.0},
    {UPGRADE_STAGE_DONE, 0, 1.0},
};

// Plain fields that a query may read while the run writes them: a stale answer is fine, a torn one is not.
template <typename T>
T sharedLoad(const T& field) {
    T value;
    __atomic_load(&field, &value, __ATOMIC_RELAXED);
    return value;
}

template <typename T>
void sharedStore(T& field, T value) {
    __atomic_store(&field, &value, __ATOMIC_RELAXED);
}

void storeFlag(UPGRADE_FLAG_T& field, UPGRADE_FLAG_T value) {
    sharedStore(field.bld, value.bld);
    sharedStore(field.mpu, value.mpu);
    sharedStore(field.mcu, value.mcu);
}

const char* succOrFail(bool succ) {
    return succ ? "succ" : "fail";
}

}  // namespace

const std::string UpgradeProc::tmpCfg = "/tmp/upgrade.cfg";
const std::string UpgradeProc::upgradePkg = std::string(kFirmwareDir) + "/upgrade.pkg";
const std::string UpgradeProc::currentPkg = std::string(kFirmwareDir) + "/current.pkg";
const std::string UpgradeProc::recvPkg = std::string(kFirmwareDir) + "/recv.tar.xz";
const std::string UpgradeProc::rollbackPkg = std::string(kFirmwareDir) + "/rollback.pkg";
const std::string UpgradeProc::storePart = "/raw";
const std::string UpgradeProc::storePath = UpgradeProc::storePart + "/upgrade";
const std::string UpgradeProc::rollbackCfg = "/config/rollback_config.json";
const std::string UpgradeProc::currentCfg = "/config/upgrade_config.json";
const std::string UpgradeProc::defaultCfg = "/etc/kavro/version.json";

namespace {

// Names that belong to the layout and that nothing uses yet.
[[maybe_unused]] const std::string recvCfg = UpgradeProc::recvPkg + ".cfg";
[[maybe_unused]] const std::string newDefaultCfg = UpgradeProc::defaultCfg + ".new";

// ---------------------------------------------------------------------------------------------------------------------
// File work with its log lines
// ---------------------------------------------------------------------------------------------------------------------

int tryCpFile(std::string src, std::string dst) {
    const int ret = COMMON_YR::cpFile(src, dst);
    if (ret < 0) {
        UPGRADE_ERROR_AT(__func__, 92, "cp %s -> %s %s\n", src.c_str(), dst.c_str(), succOrFail(false));
    } else {
        UPGRADE_LOG(3, "cp %s -> %s %s\n", src.c_str(), dst.c_str(), succOrFail(true));
    }
    return ret;
}

void tryMvFile(const std::string& src, const std::string& dst) {
    if (COMMON_YR::mvFile(src, dst) < 0) {
        UPGRADE_ERROR("mv %s -> %s %s\n", src.c_str(), dst.c_str(), succOrFail(false));
    } else {
        UPGRADE_LOG(3, "mv %s -> %s %s\n", src.c_str(), dst.c_str(), succOrFail(true));
    }
}

// A file that is not there is no failure, but the log tells it apart.
void removeFile(const std::string& path) {
    const int code = kavro::pathMayExist(path) ? std::remove(path.c_str()) : COMMON_YR::kErrNoFile;
    UPGRADE_LOG(3, "remove %s [%s]!\n", path.c_str(), COMMON_YR::getCommonErrCode(code));
}

// ---------------------------------------------------------------------------------------------------------------------
// The running versions
// ---------------------------------------------------------------------------------------------------------------------

// The version that the microcontroller reports, or reported when it last answered; else the given one.
int currentMcuVersion(int recorded) {
    const int reported = velGetMcuVersion(UpgradeProc::getInstance()->node);
    if (reported >= 0) {
        UPGRADE_LOG(3, "%s: ver %d;\n", "updateMcuVersion", reported);
        mcuVersionCache.store(reported, kRelaxed);
        return reported;
    }
    const int cached = mcuVersionCache.load(kRelaxed);
    return cached != MCU_VERSION_UNKNOWN ? cached : recorded;
}

// hw, mpu and bld as the factory made them; mcu as recorded since, or better as the device itself tells.
int getCurrentVersion(L_VERSION_T* version) {
    L_VERSION_T result;
    if (UPGRADE_read_target_version(result, UpgradeProc::defaultCfg) < 0) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    L_VERSION_T recorded;
    if (UPGRADE_read_target_version(recorded, UpgradeProc::currentCfg) >= 0) {
        result.mcu = recorded.mcu;
    }
    result.mcu = currentMcuVersion(result.mcu);
    *version = result;
    return 0;
}

std::string versionText(const L_VERSION_T& version) {
    char text[128];
    std::snprintf(text, sizeof(text), "V%02d.%03d.%03d.%03d", version.hw, version.mpu, version.mcu,
                  version.bld);
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Controller
// ---------------------------------------------------------------------------------------------------------------------

UpgradeProc* UpgradeProc::getInstance() {
    const COMMON_YR::CancelHold hold;
    static std::unique_ptr<UpgradeProc> holder;
    const std::lock_guard<std::mutex> lock(instanceMutex);
    if (holder == nullptr) {
        holder.reset(new UpgradeProc());
    }
    return holder.get();
}

UpgradeProc::UpgradeProc() {
    onProgrameStatusChg();
    node = getVelNode(258, "upgrade", 0, 0, 2000);
    if (node == nullptr) {
        UPGRADE_LOG(2, "velNodeFd NULL!\n");
    }
    mcu = std::make_unique<UpgradeMcu>();
    mcu->name = "upgradeMcu";
    mcu->initOk = false;
    if (mcu->init() >= 0) {
        mcu->initOk = true;
    }
    // Without the driver of the microcontroller no run can be made, so the other processor's is not even
    // tried.
    if (!mcu->initOk) {
        return;
    }
    mpu = std::make_unique<UpgradeMpu>();
    libReady = mpu->initOk;
}

UpgradeProc::~UpgradeProc() {
    mpu.reset();
    mcu.reset();
    velDestroyNode(&node);
}

bool UpgradeProc::init(std::string pkgPath, bool rollback) {
    running.store(true, kRelaxed);
    // The worst first, so that a run that dies half-way is remembered as failed.
    UPGRADE_set_status_last_runtime(rollback ? UPG_STS_LAST_RT_ROLLBACK_FAILURE
                                             : UPG_STS_LAST_RT_UPGRADE_FAILURE);
    inputPkg = pkgPath;
    stage.store(UPGRADE_STAGE_INIT, kRelaxed);
    isRollback = rollback;
    onProgrameStatusChg();

    const long size = COMMON_YR::getFileSize(pkgPath.c_str());
    if (size != kPackageBytes) {
        UPGRADE_ERROR_AT(__func__, 192, "input file(%s) size is %ld/%ld(expect);\n", pkgPath.c_str(), size,
                         kPackageBytes);
        return false;
    }
    // Whether the work area is there afterwards tells more than the results of the commands.
    COMMON_YR::runSystem("rm %s/* -fr", storePart.c_str());
    COMMON_YR::runSystem("mkdir -p %s", storePath.c_str());
    if (!kavro::pathExists(storePath)) {
        return false;
    }
    getCurrentVersion(&currentVersion);
    return true;
}

bool UpgradeProc::deinit() {
    return true;
}

void UpgradeProc::resetRun() {
    reservedWord = 0;
    running.store(false, kRelaxed);
    giveup.store(false, kRelaxed);
    state.store(UPGRADE_STATE_NONE, kRelaxed);
    workPkg.clear();
    isRollback = false;
    storeFlag(upgradeFlag, UPGRADE_FLAG_T{});
    targetVersion = L_VERSION_T{};
    currentVersion = L_VERSION_T{};
    stage.store(UPGRADE_STAGE_IDLE, kRelaxed);
    for (double& tick : stageTick) {
        sharedStore(tick, 0.0);
    }
    activateResult = -1;
    setActivated(false);
}

void UpgradeProc::onProgrameStatusChg() {
    const COMMON_YR::CancelHold hold;
    const int stageNow = stage.load(kRelaxed);
    const int stateNow = state.load(kRelaxed);
    printLog(2, "&&&&& upgrade [stage %s], [result %s] &&&&&\n",
             COMMON_YR::getKeyString(stageNow, stageNames), COMMON_YR::getKeyString(stateNow, stateNames));
    UpgradeStatusMsg msg = kStatusMsgTemplate;
    msg.state = stateNow;
    velPublishMsg(node, &msg);
    const double tick = glbGetCurTickMs();
    if (stageNow >= 0 && stageNow < kStageCount && sharedLoad(stageTick[stageNow]) == 0.0) {
        sharedStore(stageTick[stageNow], tick);
    }
}

bool UpgradeProc::upgradeSucc() {
    return stage.load(kRelaxed) == UPGRADE_STAGE_DONE && state.load(kRelaxed) == UPGRADE_STATE_FINISH;
}

void UpgradeProc::setActivated(bool on) {
    sharedStore(activated, on);
}

bool UpgradeProc::ctrlSpi(bool on) {
    return velSpiDevCtrl(node, on) >= 0;
}

void UpgradeProc::preActivate() {}

void UpgradeProc::preUpgradeMpu() {}

void UpgradeProc::postUpgradeMpu(bool success) {
    (void)success;
}

bool UPGRADE_isUpgraded() {
    return kavro::pathMayExist(kUpgradedMarker);
}

// ---------------------------------------------------------------------------------------------------------------------
// The current version file around a flash of the microcontroller
// ---------------------------------------------------------------------------------------------------------------------

void UpgradeProc::tryUpdateVersion(L_VERSION_T& version) {
    // A value that no version has, so that a file that cannot be read leads to a write.
    constexpr int32_t kUnread = std::numeric_limits<int32_t>::min();
    L_VERSION_T recorded{kUnread, kUnread, kUnread, kUnread};
    UPGRADE_read_target_version(recorded, currentCfg);
    if (recorded.mpu == version.mpu && recorded.mcu == version.mcu && recorded.bld == version.bld) {
        return;
    }
    if (UPGRADE_write_target_version(version, currentCfg) == 0) {
        return;
    }
    UPGRADE_ERROR("UPGRADE_write_target_version ERROR!");
    tryCpFile(tmpCfg, currentCfg);
    UPGRADE_LOG(3, "%s: update failed!\n", __func__);
}

void UpgradeProc::updateVersion(bool mpuDone, bool mcuDone) {
    L_VERSION_T version = currentVersion;
    if (mpuDone) {
        version.mpu = targetVersion.mpu;
        version.bld = targetVersion.bld;  // the bootloader travels with the MPU image
    }
    if (mcuDone) {
        version.mcu = targetVersion.mcu;
    }
    tryUpdateVersion(version);
}

void UpgradeProc::clearVersion(bool mpuBegins, bool mcuBegins) {
    constexpr int32_t kUnfinished = -1;
    L_VERSION_T version = currentVersion;
    if (mpuBegins) {
        version.mpu = kUnfinished;
    }
    if (mcuBegins) {
        version.mcu = kUnfinished;
    }
    tryUpdateVersion(version);
}

void UpgradeProc::preUpgradeMcu() {
    clearVersion(false, true);
}

void UpgradeProc::postUpgradeMcu(bool success) {
    if (success) {
        updateVersion(false, true);
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// The run: the worker's sequence
// ---------------------------------------------------------------------------------------------------------------------

namespace {

// What the worker carries from stage to stage.
struct Run {
    explicit Run(UpgradeProc& controller) : proc(controller) {}

    UpgradeProc& proc;
    std::string unpackDir = UpgradeProc::storePath;
    std::string pkg;
    UPGADE_PKG_OUT_T out;
    int ret = 0;
    bool done = false;
};

constexpr const char* kSequence = "_upgrade_proc_fun";

void publishStage(UpgradeProc& proc, UpgradeStage stage) {
    proc.stage.store(stage, kRelaxed);
    proc.onProgrameStatusChg();
}

void publishState(UpgradeProc& proc, UpgradeState state) {
    proc.state.store(state, kRelaxed);
    proc.onProgrameStatusChg();
}

void copyPackage(Run& run) {
    UpgradeProc& proc = run.proc;
    if (tryCpFile(proc.inputPkg, UpgradeProc::upgradePkg) < 0) {
        // Packages of an older software may be what fills the storage: without them the next try can succeed.
        COMMON_YR::runSystem("rm %s/* -fr", kFirmwareDir);
        run.ret = -1;
        return;
    }
    proc.workPkg = UpgradeProc::upgradePkg;
    run.pkg = UpgradeProc::upgradePkg;
    publishState(proc, UPGRADE_STATE_START);
    if (!kavro::pathExists(run.pkg)) {
        UPGRADE_STEP_ERROR_AT(kSequence, 467);
        run.ret = -1;
        return;
    }
    sleep(kStepPauseSeconds);
    publishState(proc, UPGRADE_STATE_INPROGRESS_MPU);
    publishStage(proc, UPGRADE_STAGE_START);
}

void processPackage(Run& run) {
    UpgradeProc& proc = run.proc;
    if (UPGRADE_proc_upgrade_pkg(run.out, {run.pkg, run.unpackDir}, proc.isRollback) != 0) {
        UPGRADE_STEP_ERROR_AT(kSequence, 478);
        run.ret = -1;
        return;
    }
    const L_VERSION_T& from = proc.currentVersion;
    const L_VERSION_T& to = run.out.version;
    UPGRADE_LOG(3, "trying [%s]: hw[%d->%d], mpu[%d->%d], mcu[%d->%d], bld[%d->%d];\n",
                proc.isRollback ? "rollback" : "upgrade", from.hw, to.hw, from.mpu, to.mpu, from.mcu, to.mcu,
                from.bld, to.bld);
    proc.stage.store(UPGRADE_STAGE_PROC_PKG_DONE, kRelaxed);
    proc.targetVersion = to;
    proc.onProgrameStatusChg();
}

void verifyPackage(Run& run) {
    // A rollback package was verified when it was installed.
    if (!run.proc.isRollback &&
        UPGRADE_verify_signature(run.unpackDir, run.out.components, run.out.pubkey_file) != 0) {
        UPGRADE_STEP_ERROR_AT(kSequence, 500);
        run.ret = -1;
        return;
    }
    publishStage(run.proc, UPGRADE_STAGE_VERIFY_PKG_DONE);
}

void decideFlags(Run& run) {
    UpgradeProc& proc = run.proc;
    UPGRADE_FLAG_T flag;
    const int ret = UPGRADE_set_upgrade_flag(flag, proc.currentVersion, proc.targetVersion, proc.isRollback);
    if (ret != 0) {
        UPGRADE_STEP_ERROR_AT(kSequence, 512);
        run.ret = ret;
        return;
    }
    storeFlag(proc.upgradeFlag, flag);
    UPGRADE_LOG(3, "upgrade flag mpu[%d], mcu[%d], bld[%d];\n", flag.mpu, flag.mcu, flag.bld);
    publishStage(proc, UPGRADE_STAGE_SET_FLAG_DONE);
}

// The last chance to give the run up, and the end of it: from here on nothing may interrupt the worker.
void passPointOfNoReturn(Run& run) {
    sleep(kStepPauseSeconds);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    run.proc.stage.store(UPGRADE_STAGE_FLASHING_START, kRelaxed);
    giveupStatus.store(kTooLateToGiveUp, kRelaxed);
    run.proc.onProgrameStatusChg();
}

void failFlashing(Run& run) {
    publishState(run.proc, UPGRADE_STATE_FAIL);
    run.ret = -1;
}

void flashAndBackUp(Run& run) {
    UpgradeProc& proc = run.proc;
    const UPGRADE_FLAG_T flag = proc.upgradeFlag;
    if (!flag.mpu && !flag.mcu && !flag.bld) {
        UPGRADE_ERROR_AT(kSequence, 549, "no need to upgrade anything!\n");
        failFlashing(run);
        return;
    }
    proc._onUpgradeBegin();
    if (UPGRADE_mpu_mcu(run.unpackDir, flag, proc.isRollback) < 0) {
        UPGRADE_STEP_ERROR_AT(kSequence, 533);
        failFlashing(run);
        proc._onUpgradeEnd(false);
        return;
    }
    publishStage(proc, UPGRADE_STAGE_BACKUP_PACKAGE);
    if (tryCpFile(proc.inputPkg, UpgradeProc::rollbackPkg) < 0) {
        failFlashing(run);
        proc._onUpgradeEnd(false);
        return;
    }
    publishState(proc, UPGRADE_STATE_FINISH);
    publishStage(proc, UPGRADE_STAGE_DONE);
    run.done = true;
    proc._onUpgradeEnd(true);
}

// One step for each stage; false when the stage has none.
bool doStage(Run& run, int stage) {
    switch (stage) {
        case UPGRADE_STAGE_INIT:
            copyPackage(run);
            return true;
        case UPGRADE_STAGE_START:
            processPackage(run);
            return true;
        case UPGRADE_STAGE_PROC_PKG_DONE:
            verifyPackage(run);
            return true;
        case UPGRADE_STAGE_VERIFY_PKG_DONE:
            decideFlags(run);
            return true;
        case UPGRADE_STAGE_SET_FLAG_DONE:
            passPointOfNoReturn(run);
            return true;
        case UPGRADE_STAGE_FLASHING_START:
            flashAndBackUp(run);
            return true;
        default:
            return false;
    }
}

// The worker's sequence. A give-up cancels it anywhere up to the last pause, so every frame from here down
// keeps to the rules of common/cancellation.h.
void _upgrade_proc_fun(UpgradeProc* proc) {
    Run run(*proc);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    bool hasStep = true;
    while (hasStep && !run.done && run.ret >= 0) {
        const int stage = proc->stage.load(kRelaxed);
        if (stage <= UPGRADE_STAGE_SET_FLAG_DONE) {
            pthread_testcancel();
        }
        hasStep = doStage(run, stage);
    }
    proc->upgradeSucc();
}

// ---------------------------------------------------------------------------------------------------------------------
// The run: its threads
// ---------------------------------------------------------------------------------------------------------------------

void workerEntry(UpgradeProc* proc) {
    _upgrade_proc_fun(proc);
    proc->running.store(false, kRelaxed);
}

// Republishes the state, so that a subscriber that comes late learns it.
int UPGRADE_node_thread(UpgradeProc* proc) {
    while (proc->running.load(kRelaxed)) {
        UpgradeStatusMsg msg = kStatusMsgTemplate;
        msg.state = proc->state.load(kRelaxed);
        velPublishMsg(proc->node, &msg);
        usleep(kNodePeriodUs);
    }
    return 0;
}

bool canBeGivenUp(const UpgradeProc* proc) {
    return proc->stage.load(kRelaxed) <= UPGRADE_STAGE_SET_FLAG_DONE;
}

// Watches for a request to give up until the run is over, then joins the worker.
void cancel_upgrade_thd(UpgradeProc* proc) {
    while (proc->running.load(kRelaxed)) {
        if (proc->giveup.load(kRelaxed) && canBeGivenUp(proc)) {
            pthread_cancel(workerThread.native_handle());
            usleep(kCancelPauseUs);
            // A worker that had just passed its last pause has cancellation off and flashes; then the request
            // came too late after all.
            if (canBeGivenUp(proc)) {
                proc->running.store(false, kRelaxed);
                giveupStatus.store(kGivenUp, kRelaxed);
                break;
            }
        }
        usleep(kCancelPollUs);
    }
    workerThread.join();
}

// False when the system has no more threads; then none of the run is left.
bool startThreads(UpgradeProc* proc) {
    try {
        nodeThread = std::thread(UPGRADE_node_thread, proc);
        workerThread = std::thread(workerEntry, proc);
    } catch (const std::system_error& error) {
        UPGRADE_ERROR("thread not started: %s\n", error.what());
        proc->running.store(false, kRelaxed);
        if (nodeThread.joinable()) {
            nodeThread.join();
        }
        return false;
    }
    try {
        cancelThread = std::thread(cancel_upgrade_thd, proc);
    } catch (const std::system_error&) {
        // The caller waits for the run anyway, so it can just as well watch it.
        cancel_upgrade_thd(proc);
    }
    return true;
}

void joinThreads() {
    if (cancelThread.joinable()) {
        cancelThread.join();
    }
    sleep(kStepPauseSeconds);
    nodeThread.join();
}

// For the length of a call that changes the device. One that another process is changing is left alone; where the lock has
// no place, nothing is in the way.
class DeviceLock {
  public:
    explicit DeviceLock(const char* function) {
        UpgradeLockHolder holder;
        result = UPGRADE_lock_device(&holder);
        if (!isFree()) {
            UPGRADE_LOG(1, "%s: the device is being changed by process %d (%s)\n", function, holder.pid,
                        holder.command.c_str());
        }
    }
    ~DeviceLock() {
        if (result == UPGRADE_LOCK_TAKEN) {
            UPGRADE_unlock_device();
        }
    }
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

    bool isFree() const { return result != UPGRADE_LOCK_HELD; }

  private:
    UpgradeLockResult result;
};

int runUpgrade(std::string pkgPath, bool isRollback) {
    UpgradeProc* proc = UpgradeProc::getInstance();
    if (proc == nullptr) {
        return -1;
    }
    proc->resetRun();
    proc->onProgrameStatusChg();
    proc->onUpgradeBegin();
    if (!proc->init(pkgPath, isRollback) || !startThreads(proc)) {
        proc->onUpgradeEnd(false);
        return -1;
    }
    joinThreads();
    const bool succ = proc->upgradeSucc();
    proc->onUpgradeEnd(succ);
    return succ ? 0 : -1;
}

}  // namespace

int UPGRADE_main_proc_fun(std::string pkgPath) {
    const DeviceLock lock(__func__);
    return lock.isFree() ? runUpgrade(pkgPath, false) : -1;
}

// ---------------------------------------------------------------------------------------------------------------------
// Bookkeeping of a run's outcome
// ---------------------------------------------------------------------------------------------------------------------

void UpgradeProc::onUpgradeBegin() {
    UPGRADE_LOG(3, "UpgradeProc::onUpgradeBegin\n");
}

void UpgradeProc::onUpgradeEnd(bool succ) {
    UPGRADE_LOG(3, "UpgradeProc::onUpgradeEnd [%s]\n", succOrFail(succ));
    // A successful run's values stay, so that they can be queried until the next run.
    if (!succ) {
        resetRun();
        onProgrameStatusChg();
    }
}

void UpgradeProc::setUpgraded(bool upgraded) {
    if (upgraded) {
        COMMON_YR::createFile(kUpgradedMarker, 0);
    } else {
        COMMON_YR::rmFile(kUpgradedMarker);
    }
}

void UpgradeProc::_onUpgradeBegin() {
    setUpgraded(false);
    setActivated(false);
    removeFile(rollbackPkg);
}

void UpgradeProc::_onUpgradeEnd(bool succ) {
    UPGRADE_LOG(3, "UpgradeProc::_onUpgradeEnd [%s]\n", succOrFail(succ));
    if (isRollback) {
        UPGRADE_set_status_last_runtime(succ ? UPG_STS_LAST_RT_ROLLBACK_SUCCESS
                                             : UPG_STS_LAST_RT_ROLLBACK_FAILURE);
    } else {
        UPGRADE_set_status_last_runtime(succ ? UPG_STS_LAST_RT_UPGRADE_SUCCESS
                                             : UPG_STS_LAST_RT_UPGRADE_FAILURE);
    }
    removeFile(upgradePkg);
    if (!succ) {
        UPGRADE_ERROR_AT(__func__, 382, "upgrade failed! result is %s;\n",
                         COMMON_YR::getKeyString(state.load(kRelaxed), stateNames));
        publishState(*this, UPGRADE_STATE_FAIL);
        return;
    }
    if (upgradeFlag.mpu) {
        setUpgraded(true);
    }
    COMMON_YR::rmFile(currentCfg);
}

// ---------------------------------------------------------------------------------------------------------------------
// Activation and rollback
// ---------------------------------------------------------------------------------------------------------------------

int UpgradeProc::activate() {
    if (!upgradeFlag.mpu && !UPGRADE_isUpgraded()) {
        UPGRADE_LOG(3, "not upgrade mpu, no need execute UPGRADE_activatePartition;\n");
        return 0;
    }
    if (UPGRADE_activatePartition(activateResult) < 0) {
        UPGRADE_ERROR_AT(__func__, 239, "%s: UPGRADE_activatePartition failed!\n", __func__);
        return -1;
    }
    return 0;
}

namespace {

// All three renames are made whatever becomes of the others: without a current package the flashed one still
// becomes it.
bool exchangePackages() {
    const int aside = std::rename(UpgradeProc::currentPkg.c_str(), kExchangePath);
    const int forward = std::rename(UpgradeProc::rollbackPkg.c_str(), UpgradeProc::currentPkg.c_str());
    const int back = std::rename(kExchangePath, UpgradeProc::rollbackPkg.c_str());
    return aside >= 0 && forward >= 0 && back >= 0;
}

// The marker lies on another file system than the packages: without a flush in between, a power cut could keep its
// removal and lose the renames. That they were made is all that can be told of a flush that fails.
void flushRenames() {
    const COMMON_YR::CancelHold hold;
    const int directory = open(kFirmwareDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        (void)fsync(directory);
        close(directory);
    }
}

}  // namespace

void UpgradeProc::postActivate(bool ok) {
    if (!ok) {
        return;
    }
    UPGRADE_LOG(3, "%s: %s mode\n", __func__, isRollback ? "rollback" : "upgrade");
    removeFile(currentCfg);
    if (isRollback) {
        const std::string package = COMMON_YR::isFileExist(rollbackPkg.c_str()) ? rollbackPkg : inputPkg;
        const bool moved = std::rename(package.c_str(), currentPkg.c_str()) >= 0;
        UPGRADE_LOG(3, "rollback(%s) -> current, %s\n", package.c_str(), succOrFail(moved));
    } else {
        UPGRADE_LOG(3, "exchange current and rollback, %s\n", succOrFail(exchangePackages()));
    }
    flushRenames();
    setActivated(true);
    setUpgraded(false);
    sync();
}

bool UpgradeProc::getUpgraded(L_VERSION_T& version) {
    if (!kavro::pathMayExist(kUpgradedMarker)) {
        return false;
    }
    // Until activation exchanges the packages, the flashed one waits in the place of the rollback package.
    _UPGRADE_PKG_T info;
    const int ret = read_info_form_pkg(info, rollbackPkg);
    if (ret < 0) {
        return false;
    }
    version = info.version;
    UPGRADE_LOG(3, "%s: %d.%d.%d.%d, ret %d\n", __func__, version.hw, version.mpu, version.mcu, version.bld,
                ret);
    return true;
}

namespace {

int activateFlashed(UpgradeProc& proc, const char* function) {
    proc.preActivate();
    const int ret = proc.activate();
    proc.postActivate(ret >= 0);
    if (ret >= 0) {
        UpgradeStatusMsg msg = kStatusMsgTemplate;
        msg.state = kStateActivated;
        velPublishMsg(proc.node, &msg);
    }
    UPGRADE_LOG(3, "%s: ret %d\n", function, ret);
    return ret;
}

}  // namespace

int UPGRADE_activate() {
    const DeviceLock lock(__func__);
    if (!lock.isFree()) {
        return -1;
    }
    UpgradeProc* proc = UpgradeProc::getInstance();
    if (proc->activated) {
        UPGRADE_LOG(2, "activated again;\n");
        return 0;
    }
    if (!proc->upgradeSucc()) {
        if (!UPGRADE_isUpgraded()) {
            UPGRADE_ERROR_AT(__func__, 632, "%s: upgrade failed, can't activate\n", __func__);
            return -1;
        }
        UPGRADE_LOG(3, "activate when not upgradeSucc, but upgraded!\n");
        L_VERSION_T version;
        if (proc->getUpgraded(version)) {
            proc->targetVersion = version;
        }
    }
    return activateFlashed(*proc, __func__);
}

int UPGRADE_rollback_mpu() {
    const DeviceLock lock(__func__);
    if (!lock.isFree()) {
        return -1;
    }
    const std::string& package = UpgradeProc::rollbackPkg;
    if (!COMMON_YR::isFileExist(package.c_str())) {
        UPGRADE_ERROR_AT(__func__, 657, "rollbackPkg not exist;\n");
        return COMMON_YR::kErrNoFile;
    }
    if (COMMON_YR::getFileSize(package.c_str()) != kPackageBytes) {
        UPGRADE_ERROR_AT(__func__, 662, "rollback.pkg size error!\n");
        return COMMON_YR::kErrNoFile;
    }
    _UPGRADE_PKG_T info;
    if (read_info_form_pkg(info, package) < 0) {
        UPGRADE_ERROR_AT(__func__, 668, "rollback.pkg pkgInfo error!\n");
        return COMMON_YR::kErrNoFile;
    }
    L_VERSION_T current;
    if (getCurrentVersion(&current) >= 0 && current.mcu == info.version.mcu) {
        // The microcontroller runs what the package holds, and so does the other slot: a switch is enough.
        UpgradeProc* proc = UpgradeProc::getInstance();
        proc->setUpgraded(true);
        proc->isRollback = true;
        return UPGRADE_activate();
    }
    // The run drops the rollback package before it flashes, so it works on a copy.
    tryCpFile(package, UpgradeProc::recvPkg);
    const int ret = runUpgrade(UpgradeProc::recvPkg, true);
    return ret < 0 ? ret : UPGRADE_activate();
}

int UPGRADE_request_mcu_reset_mpu() {
    return UPGRADE_request_reboot();
}

// ---------------------------------------------------------------------------------------------------------------------
// Status queries
// ---------------------------------------------------------------------------------------------------------------------

int UPGRADE_get_state() {
    UpgradeProc* proc = UpgradeProc::getInstance();
    if (proc->upgradeSucc() || UPGRADE_isUpgraded()) {
        return 2;
    }
    if (sharedLoad(proc->activated)) {
        return 3;
    }
    return UPGRADE_get_stage() != UPGRADE_STAGE_IDLE ? 1 : 0;
}

int UPGRADE_get_stage() {
    return UpgradeProc::getInstance()->stage.load(kRelaxed);
}

namespace {

// How long flashing takes depends on what is flashed, and whether side by side.
double expectedFlashingSeconds(const UpgradeProc* proc) {
    constexpr double kBoth = 361.0;
    constexpr double kOne = 181.0;
    constexpr double kNone = 1.0;
    constexpr double kAtMostSideBySide = 180.0;
    const bool mpu = sharedLoad(proc->upgradeFlag.mpu);
    const bool mcu = sharedLoad(proc->upgradeFlag.mcu);
    double seconds = kNone;
    if (mpu && mcu) {
        seconds = kBoth;
    } else if (mpu || mcu) {
        seconds = kOne;
    }
    return proc->flashModeFlag ? std::fmin(seconds, kAtMostSideBySide) : seconds;
}

// What of the stage's share has passed; one short of the whole at most, since only the next stage makes it
// whole.
int elapsedShare(const UpgradeProgressRow& row, double startMs) {
    const double elapsedMs = std::fabs(glbGetCurTickMs() - startMs);
    const double part = std::trunc(elapsedMs * row.sharePercent / (sharedLoad(row.expectedSeconds) * 1000.0));
    if (part == 0.0) {
        return 0;
    }
    return part >= row.sharePercent ? row.sharePercent - 1 : static_cast<int>(part);
}

}  // namespace

int UPGRADE_get_progress() {
    UpgradeProc* proc = UpgradeProc::getInstance();
    const int stage = UPGRADE_get_stage();
    if (stage > UPGRADE_STAGE_DONE) {
        return 0;
    }
    if (!proc->running.load(kRelaxed) && !proc->upgradeSucc()) {
        return 0;
    }
    int base = 0;
    for (UpgradeProgressRow& row : progressTable) {
        if (row.stage != stage) {
            base += row.sharePercent;
            continue;
        }
        if (stage == UPGRADE_STAGE_FLASHING_START) {
            sharedStore(row.expectedSeconds, expectedFlashingSeconds(proc));
        }
        const double startMs = sharedLoad(proc->stageTick[stage]);
        return startMs > 0.0 ? base + elapsedShare(row, startMs) : base;
    }
    return base;
}

void UPGRADE_set_giveup_upgrade_flag() {
    UpgradeProc::getInstance()->giveup.store(true, kRelaxed);
}

int UPGRADE_get_giveup_sts() {
    usleep(kGiveupAnswerPauseUs);
    return giveupStatus.load(kRelaxed);
}

int UPGRADE_getIntervalVersionString(std::string& text) {
    L_VERSION_T version;
    if (UPGRADE_read_target_version(version, UpgradeProc::defaultCfg) < 0) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    text = versionText(version);
    return 0;
}

int UPGRADE_get_cur_ver_str(std::string& text) {
    L_VERSION_T version;
    if (getCurrentVersion(&version) < 0) {
        UPGRADE_STEP_ERROR();
        return -1;
    }
    text = versionText(version);
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// Start-up
// ---------------------------------------------------------------------------------------------------------------------

namespace {

// The archive is removed whatever came of the unpacking, so that a bad one is tried once.
void restoreOriginPackage() {
    constexpr const char* kFunction = "UPGRADE_init";
    UPGRADE_LOG(2, "original package exist!\n");
    COMMON_YR::runSystem("tar -zxf %s -C %s", kOriginPackage, kFirmwareDir);
    COMMON_YR::rmFile(kOriginPackage);
    const std::string md5 = COMMON_YR::readFile2String(kOriginMd5File);
    if (md5.size() != kMd5TextLength) {
        UPGRADE_ERROR_AT(kFunction, __LINE__, "oriMd5 file size %d is not 32\n",
                         static_cast<int>(md5.size()));
        return;
    }
    if (!COMMON_YR::chkFileMd5(kOriginUnpacked, md5)) {
        UPGRADE_ERROR_AT(kFunction, __LINE__, "md5 check failed\n");
        return;
    }
    tryMvFile(kOriginUnpacked, UpgradeProc::recvPkg);
}

}  // namespace

int UPGRADE_init(std::string& fwDir) {
    const DeviceLock lock(__func__);
    if (lock.isFree() && COMMON_YR::isFileExist(kOriginPackage)) {
        restoreOriginPackage();
    }
    const UpgradeProc* proc = UpgradeProc::getInstance();
    if (proc == nullptr || !proc->libReady) {
        UPGRADE_ERROR("UpgradeProc::getInstance() failed!\n");
        return -1;
    }
    fwDir = kFirmwareDir;
    int ret = 0;
    L_VERSION_T version;
    if (UPGRADE_check_partitions() < 0) {
        UPGRADE_ERROR("UPGRADE_check_partitions failed!\n");
        ret = -1;
    } else if (lock.isFree() && getCurrentVersion(&version) >= 0) {
        UPGRADE_write_target_version(version, UpgradeProc::currentCfg);
    }
    UPGRADE_LOG(3, "%s %s\n", __func__, succOrFail(ret == 0));
    return ret;
}

int UPGRADE_check_partitions() {
    static const COMMON_YR::UpgradePartsLimit partitionLimits[] = {
        {kFirmwareDir, 469762048, 335544320},
        {UpgradeProc::storePart, 2147483648, 1073741824},
    };
    return COMMON_YR::checkPartitions(partitionLimits, std::size(partitionLimits), true);
}

int UPGRADE_get_blk_info(long* blockSize, long* blockCount) {
    *blockSize = kBlockBytes;
    *blockCount = kBlockCount;
    return 0;
}
