#include "tools/upgradectl/install.h"

#include <algorithm>
#include <string>
#include <vector>

#include "tools/upgradectl/error_log.h"
#include "tools/upgradectl/package_trailer.h"
#include "tools/upgradectl/run_view.h"
#include "tools/upgradectl/run_watch.h"
#include "tools/upgradectl/tool_error.h"
#include "upgrade/upgrade_api.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

// What a failure in each stage means, and what to do about it.
struct StageFailure {
    int stage;
    ExitCode code;
    const char* what;  // follows the package's name
    const char* next;
};

constexpr StageFailure kStageFailures[] = {
    {UPGRADE_STAGE_INIT, ExitCode::kOther,
     "could not be copied to /firmware, or the device is not ready for a run",
     "check that /firmware has room for two packages and that /raw can be written; a failed copy has "
     "emptied /firmware"},
    {UPGRADE_STAGE_START, ExitCode::kRefused, "is damaged", "transfer the package again"},
    {UPGRADE_STAGE_PROC_PKG_DONE, ExitCode::kRefused,
     "lacks a component or has a signature that does not verify",
     "use a package that 'upgradectl pack' made, and transfer it again"},
    {UPGRADE_STAGE_VERIFY_PKG_DONE, ExitCode::kOther, "could not be compared with the installed versions",
     "check /config/upgrade_config.json"},
    {UPGRADE_STAGE_FLASHING_START, ExitCode::kFlashFailed, "could not be flashed",
     "mend what the device: lines say, then install it again before the device is restarted"},
    {UPGRADE_STAGE_BACKUP_PACKAGE, ExitCode::kFlashFailed,
     "was flashed but could not be kept as /firmware/rollback.pkg",
     "make room in /firmware, then install it again"},
};

constexpr StageFailure kUnpackFailure = {
    UPGRADE_STAGE_START, ExitCode::kOther, "is whole, but could not be unpacked to /raw/upgrade",
    "check that /raw has room for its components; if it has, use a package that 'upgradectl pack' made"};

const StageFailure& failureOf(const RunOutcome& outcome) {
    // Flashing that fails at once may be over before its stage was seen.
    const bool flashing = outcome.giveUp == GiveUp::kTooLate;
    const int stage = std::max(outcome.highestStage, flashing ? int{UPGRADE_STAGE_FLASHING_START} : 0);
    const StageFailure* found = &kStageFailures[0];
    for (const StageFailure& row : kStageFailures) {
        if (row.stage <= stage) {
            found = &row;
        }
    }
    return *found;
}

ToolError refused(const fs::path& package, const std::string& fault, const std::string& next) {
    return {ExitCode::kRefused, "the package '" + package.string() + "' " + fault, next};
}

// After a failure in the stage START, which has cut the copied package down to its payload: whether that is
// what the trailer says, so that not the package is to blame.
bool hasWholePayload(const std::string& package) {
    _UPGRADE_PKG_T info;
    return read_info_form_pkg(info, package) == 0 && COMMON_YR::chkFileMd5(UpgradeProc::upgradePkg, info.md5);
}

// A run that failed, by the stage in which it did.
ToolError runFailure(const RunOutcome& outcome, const std::string& package) {
    if (outcome.giveUp == GiveUp::kInTime) {
        return {ExitCode::kGivenUp, "the installation of '" + package + "' was given up, nothing was flashed",
                "start it again whenever you like"};
    }
    const std::vector<std::string> deviceWords = loggedErrors();
    const bool startFailed = outcome.highestStage == UPGRADE_STAGE_START;
    const StageFailure& failure =
        startFailed && hasWholePayload(package) ? kUnpackFailure : failureOf(outcome);
    return {failure.code, "the package '" + package + "' " + failure.what, failure.next, deviceWords};
}

bool isBelow(const fs::path& path, const fs::path& directory) {
    std::error_code ignored;
    const std::string name = fs::weakly_canonical(path, ignored).string();
    return name.rfind(directory.string() + "/", 0) == 0;
}

// A run overwrites or removes these before it is done with the package it installs.
void requireApartFromWorkFiles(const fs::path& package) {
    std::error_code ignored;
    if (isBelow(package, UpgradeProc::storePart) ||
        fs::equivalent(package, UpgradeProc::upgradePkg, ignored) ||
        fs::equivalent(package, UpgradeProc::rollbackPkg, ignored)) {
        throw refused(package, "is a file that the run itself replaces",
                      "copy it, for example to " + UpgradeProc::recvPkg + ", and install the copy");
    }
}

void requirePackage(const fs::path& package) {
    std::error_code error;
    const fs::file_status status = fs::status(package, error);
    if (!fs::exists(status)) {
        throw refused(package, "is missing", "check the path");
    }
    if (!fs::is_regular_file(status)) {
        throw refused(package, "is no regular file", "give the package file");
    }
    const std::uintmax_t size = fs::file_size(package, error);
    if (error || size != kPackageBytes) {
        throw refused(package,
                      "has " + std::to_string(error ? 0 : size) + " bytes, a package has " +
                          std::to_string(kPackageBytes),
                      "transfer it again, whole");
    }
    requireApartFromWorkFiles(package);
}

// Until activation the installed package lies where the kept one lay: going back would activate it instead
// and lose the package of the running software.
void requireNothingAwaitsActivation() {
    if (UPGRADE_isUpgraded()) {
        throw ToolError(ExitCode::kOther,
                        "an installed package awaits activation, there is nothing to go back from",
                        "the device keeps its running software until 'upgradectl activate': activate the "
                        "package, or install another one");
    }
}

std::string currentVersion() {
    std::string version = "unknown";
    UPGRADE_get_cur_ver_str(version);
    return version;
}

}  // namespace

void install(const fs::path& package, const OwnOutput& output, const Interrupts& interrupts) {
    const fs::path absolute = fs::absolute(package);
    requirePackage(absolute);
    const std::unique_ptr<RunView> view = makeRunView(output);
    const RunOutcome outcome =
        watchRun([&] { return UPGRADE_main_proc_fun(absolute.string()); }, *view, interrupts);
    if (outcome.result < 0) {
        throw runFailure(outcome, package.string());
    }
    output.writeLine("installed '" + package.string() + "', it awaits activation");
    output.writeLine("  next: upgradectl activate, then restart the device");
}

void rollback(const OwnOutput& output, const Interrupts& interrupts) {
    requireNothingAwaitsActivation();
    const std::unique_ptr<RunView> view = makeRunView(output);
    const RunOutcome outcome = watchRun(UPGRADE_rollback_mpu, *view, interrupts);
    if (outcome.result == COMMON_YR::kErrNoFile) {
        throw ToolError(ExitCode::kRefused,
                        "the rollback package '" + UpgradeProc::rollbackPkg + "' is missing or damaged",
                        "install a package instead", loggedErrors());
    }
    const bool runFailed =
        outcome.highestStage != UPGRADE_STAGE_IDLE && outcome.highestStage != UPGRADE_STAGE_DONE;
    if (outcome.result < 0 && runFailed) {
        throw runFailure(outcome, UpgradeProc::rollbackPkg);
    }
    if (outcome.result < 0) {
        throw ToolError(ExitCode::kOther, "the rolled back software could not be activated",
                        "run 'upgradectl activate'", loggedErrors());
    }
    output.writeLine("rolled back, versions now " + currentVersion());
    output.writeLine("  next: restart the device");
}

}  // namespace upgradectl
