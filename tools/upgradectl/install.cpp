#include "tools/upgradectl/install.h"

#include <string>
#include <utility>
#include <vector>

#include "agent/activation.h"
#include "agent/preflight.h"
#include "package/trailer.h"
#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/flash_drivers.h"
#include "tools/upgradectl/run_failure.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

// Refuses the installation for everything that is in its way.
void requireInstallable(const fs::path& package, const RunOptions& options, Findings& findings) {
    requireFlashDrivers();
    kavro::agent::PreflightOptions wanted;
    wanted.trustedKey = options.trustedKey;
    wanted.force = options.force;
    wanted.ignoreLock = true;
    const kavro::agent::Preflight preflight = kavro::valueOf(kavro::agent::preflight(package, wanted));
    if (preflight.check) {
        findings.components = preflight.check->components;
        findings.keyDigest = preflight.check->keyDigest;
    }
    if (!preflight.clear()) {
        throw Failure(kavro::agent::errorOf(preflight));
    }
    for (const kavro::agent::Obstacle& obstacle : preflight.overridden) {
        findings.notices.push_back("by force: " + obstacle.text);
    }
}

void requireWayBack(const RunOptions& options, Findings& findings, kavro::agent::WayBack& way) {
    requireFlashDrivers();
    way = kavro::valueOf(kavro::agent::findWayBack(options.trustedKey));
    findings.components = way.components;
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
    performRun({"install", package, [&](Findings& found) { requireInstallable(package, options, found); },
                [&] { return UPGRADE_main_proc_fun(absolute.string()); },
                [&](const RunOutcome& outcome) { return installed(outcome, package); }},
               options, interrupts);
}

void rollback(const RunOptions& options, const Interrupts& interrupts) {
    kavro::agent::WayBack way;
    performRun({"rollback", UpgradeProc::rollbackPkg,
                [&](Findings& findings) { requireWayBack(options, findings, way); },
                [&] { return kavro::agent::goBack(way); },
                [&](const RunOutcome& outcome) { return rolledBack(outcome, way.release); }},
               options, interrupts);
}

}  // namespace upgradectl
