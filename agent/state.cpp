#include "agent/state.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "agent/history.h"
#include "agent/internal/board.h"
#include "agent/internal/last_run.h"
#include "agent/internal/published_run.h"
#include "package/trailer.h"
#include "package/version.h"
#include "upgrade/device_lock.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

std::string runningVersion() {
    std::string version;
    UPGRADE_getIntervalVersionString(version);
    return version;
}

std::string flashedVersion() {
    std::string version;
    UPGRADE_get_cur_ver_str(version);
    return version;
}

KeptPackage lookAt(const std::string& path) {
    KeptPackage package;
    package.path = path;
    const long size = COMMON_YR::getFileSize(path.c_str());
    if (size >= 0) {
        package.bytes = size;
        package.whole = static_cast<std::uint64_t>(size) == package::kPackageBytes;
        package.version = package::readVersion(path);
    }
    return package;
}

std::optional<RunInProgress> runElsewhere() {
    UpgradeLockHolder holder;
    if (!UPGRADE_is_device_locked(&holder) || holder.pid == getpid()) {
        return std::nullopt;
    }
    RunInProgress run = {holder.pid, holder.command, {}, {}, {}};
    const std::optional<PublishedRun> published = readPublishedRun();
    if (published && (holder.pid == 0 || holder.pid == published->pid)) {
        run.stage = published->stage;
        run.state = published->state;
        run.percent = published->percent;
    }
    return run;
}

// A run of this process.
bool runsHere() {
    return UpgradeProc::getInstance()->running.load(std::memory_order_relaxed);
}

std::optional<int> known(int number) {
    return number == COMMON_YR::kBoardUnknown ? std::nullopt : std::optional<int>(number);
}

void readSlots(State& state) {
    COMMON_YR::BoardState board;
    if (askBoard(board, state.boardFault) != Answer::kGiven) {
        return;
    }
    state.runningSlot = board.runningSlot;
    state.nextSlot = board.nextSlot;
    state.restartPending = board.nextSlot != board.runningSlot;
    state.onTrial = board.onTrial;
    if (board.onTrial) {
        state.trialStart = known(board.trialStarts);
        state.trialLimit = known(board.trialLimit);
    }
}

void readPackages(State& state) {
    for (const std::string& path :
         {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg, UpgradeProc::recvPkg}) {
        state.packages.push_back(lookAt(path));
    }
    const std::string& current = state.packages[0].version;
    const std::string& rollback = state.packages[1].version;
    state.awaitsActivation = UPGRADE_isUpgraded();
    if (state.awaitsActivation) {
        state.awaitingVersion = rollback;  // until the activation exchanges the two
    }
    if (!state.nextSlot.empty()) {
        state.nextVersion = state.restartPending ? current : state.runningVersion;
    }
}

void readFallback(State& state) {
    const Result<std::vector<HistoryEntry>> history = readHistory();
    if (!history.ok()) {
        return;
    }
    for (const HistoryEntry& entry : history.value()) {
        if (entry.event == "fallback") {
            state.fallback = Fallback{entry.release, entry.time};
        } else if (entry.event == "activate" && entry.outcome == "ok") {
            state.fallback.reset();
        }
    }
}

// The microcontroller's version within a text of all four; nothing when it is none, or unfinished.
std::optional<int> microcontrollerOf(const std::string& version) {
    const Result<package::Version> parsed = package::parseVersion(version);
    return parsed.ok() ? std::optional<int>(parsed.value().mcu) : std::nullopt;
}

// It is programmed by a run, before the software that it belongs to is started.
bool belongsToWhatComes(const State& state) {
    const std::string& coming = state.awaitsActivation ? state.awaitingVersion : state.nextVersion;
    return (state.awaitsActivation || state.restartPending) &&
           microcontrollerOf(coming) == state.microcontroller;
}

// While another process has the device the link is its own.
void readMicrocontroller(State& state) {
    if (state.run || runsHere()) {
        return;
    }
    const int version = velGetMcuVersion(UpgradeProc::getInstance()->node);
    if (version < 0) {
        state.microcontrollerFault =
            "the microcontroller gives no version: it is silent, or has no application";
        return;
    }
    state.microcontroller = version;
    const std::optional<int> expected = microcontrollerOf(state.runningVersion);
    if (expected && *expected != version && !belongsToWhatComes(state)) {
        state.microcontrollerFault = "the microcontroller has version " + std::to_string(version) +
                                     ", the running software brings " + std::to_string(*expected);
    }
}

std::string trialText(const State& state) {
    if (!state.trialStart || !state.trialLimit) {
        return "the running software is on trial";
    }
    return "the running software is on trial, start " + std::to_string(*state.trialStart) + " of " +
           std::to_string(*state.trialLimit);
}

void findNeeds(State& state) {
    const auto need = [&state](const char* name, const std::string& text, const char* next) {
        state.needs.push_back({name, text, next});
    };
    if (state.runningVersion.empty() || state.currentVersion.empty()) {
        need("versions", "the versions in '" + UpgradeProc::defaultCfg + "' cannot be read",
             "restore the file: the four integers hw_version, mpu_version, mcu_version, bld_version");
    }
    if (!state.boardFault.empty()) {
        need("board", "the slots are not known: " + state.boardFault, "mend that");
    }
    if (state.run || runsHere()) {
        return;  // whatever else there is changes under it
    }
    if (state.awaitsActivation) {
        need("activate", "an installed package awaits its activation",
             "upgradectl activate, or upgradectl discard to drop it");
    } else if (isFailure(state.lastRun)) {
        need("install_again", "the last run has failed", "install a package again");
    }
    if (state.restartPending) {
        need("restart", "slot " + state.nextSlot + " starts next, slot " + state.runningSlot + " runs",
             "restart the device");
    } else if (state.onTrial) {
        need("confirm", trialText(state), "when it works: upgradectl confirm");
    }
    if (!state.microcontrollerFault.empty()) {
        need("repair", state.microcontrollerFault, "install the running release again");
    }
}

}  // namespace

State readState() {
    State state;
    state.run = runElsewhere();
    state.runningVersion = runningVersion();
    state.currentVersion = flashedVersion();
    state.lastRun = recordedOutcome();
    readSlots(state);
    readPackages(state);
    readFallback(state);
    readMicrocontroller(state);
    findNeeds(state);
    return state;
}

}  // namespace kavro::agent
