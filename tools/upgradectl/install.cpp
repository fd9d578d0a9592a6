#include "tools/upgradectl/install.h"

#include <string>

#include "agent/activation.h"
#include "base/path_relation.h"
#include "package/trailer.h"
#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/run_failure.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

Failure refused(const fs::path& package, const std::string& fault, const std::string& next) {
    return {ErrorCode::kRefused, "the package '" + package.string() + "' " + fault, next};
}

// A run overwrites or removes these before it is done with the package it installs.
void requireApartFromWorkFiles(const fs::path& package) {
    std::error_code ignored;
    if (kavro::isBelow(package, UpgradeProc::storePart) ||
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
    if (error || size != kavro::package::kPackageBytes) {
        throw refused(package,
                      "has " + std::to_string(error ? 0 : size) + " bytes, a package has " +
                          std::to_string(kavro::package::kPackageBytes),
                      "transfer it again, whole");
    }
    requireApartFromWorkFiles(package);
}

RunEnd installed(const RunOutcome& outcome, const fs::path& package) {
    if (outcome.result < 0) {
        throw installFailure(outcome, package.string());
    }
    if (!UPGRADE_isUpgraded()) {
        throw Failure(
            ErrorCode::kOther,
            "'" + package.string() + "' is installed, but the marker that it awaits activation is not",
            "make room in the file system at /config, then install the package again", loggedErrors());
    }
    return {ExitCode::kOk,
            "installed '" + package.string() + "', it awaits activation",
            "upgradectl activate, then restart the device",
            {}};
}

RunEnd rolledBack(const RunOutcome& outcome, const std::string& release) {
    const bool runSucceeded = outcome.stage() == UPGRADE_STAGE_IDLE || outcome.stage() == UPGRADE_STAGE_DONE;
    if (outcome.result < 0 && !runSucceeded) {
        throw rollbackFailure(outcome);
    }
    if (outcome.result < 0) {
        throw Failure(ErrorCode::kOther, "the rolled back software could not be activated",
                      "mend what the device: lines say, then run 'upgradectl activate'", loggedErrors());
    }
    return {ExitCode::kOk,
            "rolled back to " + release + ", which runs after the next restart",
            "restart the device",
            {}};
}

}  // namespace

void install(const fs::path& package, const RunOptions& options, const Interrupts& interrupts) {
    const fs::path absolute = fs::absolute(package);
    performRun({"install", package, [&] { requirePackage(absolute); },
                [&] { return UPGRADE_main_proc_fun(absolute.string()); },
                [&](const RunOutcome& outcome) { return installed(outcome, package); }},
               options, interrupts);
}

void rollback(const RunOptions& options, const Interrupts& interrupts) {
    kavro::agent::WayBack way;
    performRun({"rollback", UpgradeProc::rollbackPkg,
                [&] { way = kavro::valueOf(kavro::agent::findWayBack(options.trustedKey)); },
                [&] { return kavro::agent::goBack(way); },
                [&](const RunOutcome& outcome) { return rolledBack(outcome, way.release); }},
               options, interrupts);
}

}  // namespace upgradectl
