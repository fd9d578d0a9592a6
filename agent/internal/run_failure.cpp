#include "agent/internal/run_failure.h"

#include <filesystem>

#include "agent/device_log.h"
#include "package/trailer.h"
#include "upgrade/upgrade_api.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace kavro::agent {

namespace {

// What a failure in each stage means, and what to do about it.
struct StageFailure {
    int stage;
    ErrorCode code;
    const char* what;  // follows the package's name
    const char* nextOfInstall;
    const char* nextOfRollback;
};

constexpr const char* kTransferAgain =
    "transfer the package again; 'upgradectl verify PACKAGE' tells all that is wrong with it";

// A rollback that has begun to flash has already dropped the rollback package, but works on a copy of it.
constexpr StageFailure kStageFailures[] = {
    {UPGRADE_STAGE_INIT, ErrorCode::kOther, "could not be copied to /firmware",
     "check that /firmware has room for two packages; a failed copy has emptied it",
     "check that /firmware has room for two more packages; where a failed copy has emptied it, install a "
     "package "
     "instead"},
    {UPGRADE_STAGE_START, ErrorCode::kRefused,
     "is damaged: the md5 of its payload is not that of its trailer", kTransferAgain,
     "install a package instead"},
    {UPGRADE_STAGE_PROC_PKG_DONE, ErrorCode::kRefused,
     "lacks a component or has a signature that does not verify",
     "use a package that 'upgradectl pack' made, and transfer it again", "install a package instead"},
    {UPGRADE_STAGE_VERIFY_PKG_DONE, ErrorCode::kOther, "could not be compared with the installed versions",
     "check /config/upgrade_config.json", "check /config/upgrade_config.json"},
    {UPGRADE_STAGE_FLASHING_START, ErrorCode::kFlashFailed, "could not be flashed",
     "mend what the device: lines say, then install it again before the device is restarted",
     "mend what the device: lines say, then install its copy, /firmware/recv.tar.xz, before the device is "
     "restarted"},
    {UPGRADE_STAGE_BACKUP_PACKAGE, ErrorCode::kFlashFailed,
     "was flashed but could not be kept as /firmware/rollback.pkg",
     "make room in /firmware, then install it again",
     "make room in /firmware, then install its copy, /firmware/recv.tar.xz"},
};

constexpr StageFailure kWorkAreaFailure = {UPGRADE_STAGE_INIT, ErrorCode::kOther,
                                           "cannot be unpacked anywhere: /raw/upgrade could not be made",
                                           "mount /raw where it can be written, then install it again",
                                           "mount /raw where it can be written, then try again"};

constexpr StageFailure kTrailerFailure = {UPGRADE_STAGE_START, ErrorCode::kRefused,
                                          "is damaged: its trailer cannot be read", kTransferAgain,
                                          "install a package instead"};

constexpr StageFailure kUnpackFailure = {
    UPGRADE_STAGE_START, ErrorCode::kOther, "is whole, but could not be unpacked to /raw/upgrade",
    "check that /raw has room for its components; if it has, use a package that 'upgradectl pack' made",
    "check that /raw has room for its components; if it has, install a package instead"};

const StageFailure& failureIn(int stage) {
    const StageFailure* found = &kStageFailures[0];
    for (const StageFailure& row : kStageFailures) {
        if (row.stage <= stage) {
            found = &row;
        }
    }
    return *found;
}

// After a failure in the stage INIT. input: the file that the run works on; one of another size ends it before that.
bool hasNoWorkArea(const std::string& input) {
    return COMMON_YR::getFileSize(input.c_str()) == static_cast<long>(package::kPackageBytes) &&
           !std::filesystem::is_directory(UpgradeProc::storePath);
}

// After a failure in the stage START, which has cut the copied package down to its payload: when that is what the
// trailer says, not the package is to blame.
const StageFailure& failureInStart(const std::string& package) {
    _UPGRADE_PKG_T info;
    if (read_info_form_pkg(info, package) != 0) {
        return kTrailerFailure;
    }
    return COMMON_YR::chkFileMd5(UpgradeProc::upgradePkg, info.md5) ? kUnpackFailure
                                                                    : failureIn(UPGRADE_STAGE_START);
}

const StageFailure& failureOf(const RunOutcome& outcome, const std::string& input) {
    if (outcome.stage() == UPGRADE_STAGE_INIT && hasNoWorkArea(input)) {
        return kWorkAreaFailure;
    }
    if (outcome.stage() == UPGRADE_STAGE_START) {
        return failureInStart(input);
    }
    return failureIn(outcome.stage());
}

Failure failed(const StageFailure& failure, const std::string& package, const char* next) {
    return {failure.code, "the package '" + package + "' " + failure.what, next, loggedErrors()};
}

Failure givenUp(const std::string& what) {
    return {ErrorCode::kGivenUp, what + " was given up, nothing was flashed",
            "start it again whenever you like"};
}

}  // namespace

Failure installFailure(const RunOutcome& outcome, const std::string& package) {
    if (outcome.givenUp) {
        return givenUp("the installation of '" + package + "'");
    }
    const StageFailure& failure = failureOf(outcome, package);
    return failed(failure, package, failure.nextOfInstall);
}

Failure rollbackFailure(const RunOutcome& outcome) {
    const std::string& package = UpgradeProc::rollbackPkg;
    if (outcome.givenUp) {
        return givenUp("going back to '" + package + "'");
    }
    const StageFailure& failure = failureOf(outcome, UpgradeProc::recvPkg);
    return failed(failure, package, failure.nextOfRollback);
}

}  // namespace kavro::agent
