#include "agent/start.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "agent/history.h"
#include "agent/internal/board.h"
#include "agent/internal/device_checks.h"
#include "agent/internal/discard.h"
#include "agent/internal/last_run.h"
#include "agent/internal/repair.h"
#include "agent/internal/slots.h"
#include "agent/internal/torn_activation.h"
#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "package/trailer.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

using COMMON_YR::BoardSlotContent;
using COMMON_YR::BoardState;

constexpr const char* kMarker = "/config/upgraded";
constexpr const char* kPackageDirectory = "/firmware";

bool exists(const std::string& path) {
    return COMMON_YR::isFileExist(path.c_str());
}

Failure incomplete(const std::string& why) {
    return {ErrorCode::kOther, "what was cut off cannot be completed: " + why,
            "mend that, and run 'upgradectl init' again before anything is activated"};
}

// Nothing when the board does not tell.
std::optional<BoardState> boardState() {
    BoardState state;
    std::string error;
    switch (askBoard(state, error)) {
        case Answer::kGiven:
            return state;
        case Answer::kNone:
            return std::nullopt;
        case Answer::kFailed:
            break;
    }
    throw incomplete(error);
}

// What the slot must hold. Nothing when a slot that was written awaits its activation, or when it is not known.
std::optional<BoardSlotContent> settledContent(const BoardState& state, const std::string& slot) {
    const auto known = state.slots.find(slot);
    const bool isSettled = state.writtenSlot.empty() && known != state.slots.end();
    return isSettled ? std::optional(known->second) : std::nullopt;
}

void move(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        throw incomplete("'" + from + "' cannot be renamed to '" + to + "': " + reasonOf(errno));
    }
}

// Goes on where the renames have stopped. Each leaves a state from which this goes on again.
void exchangeTheRest(bool begun) {
    const std::string& current = UpgradeProc::currentPkg;
    const std::string& rollback = UpgradeProc::rollbackPkg;
    if (!begun && exists(current)) {
        move(current, kPackageAside);
    }
    if (!exists(current)) {
        move(rollback, current);
    }
    if (exists(kPackageAside)) {
        move(kPackageAside, rollback);
    }
}

// Between the first and the last rename there are two packages, one of them aside.
bool isExchangeBegun() {
    return exists(kPackageAside) && exists(UpgradeProc::currentPkg) != exists(UpgradeProc::rollbackPkg);
}

bool areExchanged(const BoardSlotContent& content) {
    return !holds(UpgradeProc::currentPkg, content) && holds(UpgradeProc::rollbackPkg, content);
}

// Whoever was cut off has not come to it.
void noteActivation() {
    HistoryEntry entry;
    entry.event = "activate";
    entry.outcome = "ok";
    entry.release = package::readVersion(UpgradeProc::currentPkg);
    entry.text = "completed after it was cut off";
    (void)appendHistory(entry);  // the activation stands, whatever becomes of its note
}

std::string completeExchange(const BoardSlotContent& content) {
    const bool begun = isExchangeBegun();
    if (!begun && !areExchanged(content)) {
        return "an activation, a rollback or a discard was cut off; the packages are in their places";
    }
    exchangeTheRest(begun);
    if (!exists(kMarker)) {
        return "the packages were about to change places; they were given their places";
    }
    noteActivation();
    return "an activation was cut off; its packages were given their places";
}

// The marker lies on another file system, and its removal may last where an exchange that nobody flushed does not: also
// one that was made before its program was killed.
void flushPackages() {
    if (!flushDirectory(kPackageDirectory)) {
        throw incomplete(std::string("'") + kPackageDirectory + "' cannot be flushed: " + reasonOf(errno));
    }
}

std::string completeActivation() {
    const std::optional<BoardState> state = boardState();
    const auto content = state ? settledContent(*state, state->nextSlot) : std::nullopt;
    if (!content) {
        return {};
    }
    std::string done = completeExchange(*content);
    flushPackages();
    COMMON_YR::rmFile(UpgradeProc::currentCfg);  // of the software before
    COMMON_YR::rmFile(kMarker);
    return done;
}

std::string runningVersion() {
    std::string version;
    UPGRADE_getIntervalVersionString(version);
    return version;
}

std::vector<HistoryEntry> historyOrNone() {
    Result<std::vector<HistoryEntry>> history = readHistory();
    return history.ok() ? std::move(history).value() : std::vector<HistoryEntry>{};
}

// The last that was done is the activation of this release, which a rollback makes, too.
bool wasActivatedLast(const std::string& release) {
    const std::vector<HistoryEntry> history = historyOrNone();
    return !history.empty() && (history.back().event == "activate" || history.back().event == "rollback") &&
           history.back().outcome == "ok" && history.back().release == release;
}

// Packages are read only where their versions leave it open which of them runs.
bool mayHaveFallenBack() {
    const std::string current = package::readVersion(UpgradeProc::currentPkg);
    const std::string rollback = package::readVersion(UpgradeProc::rollbackPkg);
    return !current.empty() && (current != runningVersion() || current == rollback);
}

// Without a kept package: the release of the current one was activated, and nothing was done since. A run over the activated
// slot that was cut off has left half a slot.
bool hasLeftFirstPackage(const BoardState& state) {
    const std::string& current = UpgradeProc::currentPkg;
    const auto left = std::find_if(state.slots.begin(), state.slots.end(), [&](const auto& slot) {
        return slot.first != state.runningSlot && holds(current, slot.second);
    });
    const auto running = state.slots.find(state.runningSlot);
    std::string ignored;
    return !isFailure(recordedOutcome()) && wasActivatedLast(package::readVersion(current)) &&
           left != state.slots.end() && (running == state.slots.end() || !holds(current, running->second)) &&
           askBoardForSlot(left->first, ignored) == Answer::kGiven;
}

// The current package is that of the slot that the boot loader has left, the kept one that of what runs.
bool hasFallenBack(const BoardState& state) {
    if (state.nextSlot != state.runningSlot || state.onTrial || !state.writtenSlot.empty()) {
        return false;
    }
    if (!exists(UpgradeProc::rollbackPkg)) {
        return hasLeftFirstPackage(state);
    }
    const auto running = state.slots.find(state.runningSlot);
    return running != state.slots.end() && areExchanged(running->second);
}

// Whether the history has it already: an activation ends what it tells of before.
bool isNoted(const std::string& release) {
    bool noted = false;
    for (const HistoryEntry& entry : historyOrNone()) {
        if (entry.event == "activate" && entry.outcome == "ok") {
            noted = false;
        } else if (entry.event == "fallback" && entry.release == release) {
            noted = true;
        }
    }
    return noted;
}

std::string noteFallback(const std::string& failed) {
    if (isNoted(failed)) {
        return {};
    }
    HistoryEntry entry;
    entry.event = "fallback";
    entry.outcome = "ok";
    entry.release = failed;
    entry.before = runningVersion();
    entry.text = "the boot loader gave it up after its trial";
    (void)appendHistory(entry);  // a device starts without its note, and tells it again at the next start
    return "the boot loader has gone back from " + failed + ", which failed its trial, to " + entry.before;
}

// Without a package of what runs there is nothing to exchange: one rename, so that none is left aside.
void makeFailedPackageTheKeptOne() {
    if (exists(UpgradeProc::rollbackPkg)) {
        exchangeTheRest(false);
    } else {
        move(UpgradeProc::currentPkg, UpgradeProc::rollbackPkg);
    }
    flushPackages();
}

// Also a device whose packages cannot be moved is to start.
std::string followFallback() {
    BoardState state;
    std::string ignored;
    if (!mayHaveFallenBack() || askBoard(state, ignored) != Answer::kGiven || !hasFallenBack(state)) {
        return {};
    }
    std::string done = noteFallback(package::readVersion(UpgradeProc::currentPkg));
    try {
        makeFailedPackageTheKeptOne();
    } catch (const Failure& failure) {
        done += (done.empty() ? "" : "; ") + failure.error().text;
    }
    return done;
}

// Without either, packages in each other's places are no sign of an activation.
bool mayBeTorn() {
    return exists(kMarker) || isExchangeBegun();
}

std::string completeDiscard() {
    if (!isDiscardTorn()) {
        return {};
    }
    dropInstalled();
    return "the installed package was about to be discarded; nothing awaits activation any more";
}

// An application may confirm a release without the agent. One that had failed its trial before is no failed one then.
void noteConfirmation() {
    BoardState state;
    std::string ignored;
    HistoryEntry entry;
    entry.event = "confirm";
    entry.outcome = "ok";
    entry.release = runningVersion();
    if (askBoard(state, ignored) == Answer::kGiven && state.nextSlot == state.runningSlot && !state.onTrial &&
        hasFailedTrial(historyOrNone(), entry.release)) {
        (void)appendHistory(entry);
    }
}

// A record that an activation has used up repeats what the boot environment says, and would count again after a fallback.
// Without the marker none awaits its activation.
void dropUsedRecord() {
    std::string ignored;  // the next start tries again
    if (!exists(kMarker)) {
        (void)askBoardToDropWrittenSlot(ignored);
    }
}

}  // namespace

void settle(std::vector<std::string>& done) {
    const COMMON_YR::CancelHold hold;
    const auto add = [&done](std::string sentence) {
        if (!sentence.empty()) {
            done.push_back(std::move(sentence));
        }
    };
    add(completeDiscard());
    add(mayBeTorn() ? completeActivation() : std::string());
    dropUsedRecord();
    add(followFallback());
}

std::string completeTornActivation() {
    const COMMON_YR::CancelHold hold;
    return mayBeTorn() && !isDiscardTorn() ? completeActivation() : std::string();
}

Result<std::vector<std::string>> completeStart() {
    const COMMON_YR::CancelHold hold;
    return resultOf([] {
        requireOwner();
        std::vector<std::string> done;
        settle(done);
        noteConfirmation();
        if (std::string repaired = bringMicrocontrollerBack(); !repaired.empty()) {
            done.push_back(std::move(repaired));
        }
        return done;
    });
}

}  // namespace kavro::agent
