// The steps, each of which leaves a state that a start can go on from:
//
//     rollback.pkg away    ->    the board's record of the written slot away    ->    /config/upgraded away
//                          ->    the microcontroller is programmed
//
// An installed package has its file until it is activated: a marker and a record without one are what a discard has left
// that was cut off.
#include "agent/internal/discard.h"

#include <cerrno>

#include "agent/activation.h"
#include "agent/history.h"
#include "agent/internal/board.h"
#include "agent/internal/device_checks.h"
#include "agent/internal/repair.h"
#include "agent/internal/torn_activation.h"
#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "package/trailer.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

constexpr const char* kConfigDirectory = "/config";
constexpr const char* kNext = "fix that, then run 'upgradectl discard' again";

void require(bool done, const std::string& fault) {
    if (!done) {
        throw Failure(ErrorCode::kOther, fault, kNext);
    }
}

void flush(const std::string& directory) {
    require(flushDirectory(directory), "'" + directory + "' cannot be flushed: " + reasonOf(errno));
}

void dropPackage() {
    const std::string& package = UpgradeProc::rollbackPkg;
    if (COMMON_YR::isFileExist(package.c_str())) {
        require(COMMON_YR::rmFile(package) >= 0, "'" + package + "' cannot be removed");
    }
    flush(parentDirectory(package));
}

void dropRecord() {
    std::string error;
    require(askBoardToDropWrittenSlot(error) != Answer::kFailed,
            "the record of the written slot cannot be removed: " + error);
}

void dropMarker() {
    UpgradeProc::getInstance()->setUpgraded(false);
    require(!UPGRADE_isUpgraded(), "the marker of what awaits activation cannot be removed");
    flush(kConfigDirectory);
}

std::vector<std::string> discardInstalled() {
    requireOwner();
    const std::string completed = completeTornActivation();
    if (!completed.empty() || !UPGRADE_isUpgraded()) {
        throw Failure(ErrorCode::kOther,
                      completed.empty() ? "no installed package awaits activation" : completed,
                      "there is nothing to discard: 'upgradectl status' tells what starts next");
    }
    HistoryEntry entry;
    entry.event = "discard";
    entry.outcome = "ok";
    entry.release = package::readVersion(UpgradeProc::rollbackPkg);
    UPGRADE_getIntervalVersionString(entry.before);
    dropInstalled();
    (void)appendHistory(entry);              // it is dropped, whatever becomes of its note
    UpgradeProc::getInstance()->resetRun();  // if it was one of this process, it has left nothing to activate

    std::vector<std::string> done = {"discarded " +
                                     (entry.release.empty() ? "the installed package" : entry.release)};
    if (std::string repaired = bringMicrocontrollerBack(); !repaired.empty()) {
        done.push_back(std::move(repaired));
    }
    return done;
}

}  // namespace

bool isDiscardTorn() {
    COMMON_YR::BoardState state;
    std::string ignored;
    return UPGRADE_isUpgraded() && !COMMON_YR::isFileExist(UpgradeProc::rollbackPkg.c_str()) &&
           !COMMON_YR::isFileExist(kPackageAside) && askBoard(state, ignored) == Answer::kGiven &&
           !state.writtenSlot.empty();
}

void dropInstalled() {
    dropPackage();
    dropRecord();
    dropMarker();
}

Result<std::vector<std::string>> discard() {
    const COMMON_YR::CancelHold hold;
    return resultOf([] { return discardInstalled(); });
}

}  // namespace kavro::agent
