#include "agent/activation.h"

#include "agent/history.h"
#include "agent/internal/board.h"
#include "agent/internal/device_checks.h"
#include "agent/internal/release_checks.h"
#include "agent/internal/room.h"
#include "agent/internal/slots.h"
#include "agent/internal/torn_activation.h"
#include "agent/preflight.h"
#include "base/failure.h"
#include "package/check.h"
#include "package/trailer.h"
#include "package/version.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

using COMMON_YR::BoardState;

Failure damaged(const package::Check& check) {
    std::string text = "the rollback package '" + UpgradeProc::rollbackPkg + "' is damaged";
    if (!check.faults.empty()) {
        text += ": " + check.faults.front();
    }
    for (const package::ComponentCheck& component : check.components) {
        text += component.fault.empty() ? "" : ": " + component.fault;
    }
    return {ErrorCode::kRefused, text, "install a package instead"};
}

package::Check checkKept(const std::optional<std::filesystem::path>& trustedKey) {
    const std::string& kept = UpgradeProc::rollbackPkg;
    if (!COMMON_YR::isFileExist(kept.c_str())) {
        throw Failure(ErrorCode::kOther, "the rollback package '" + kept + "' is missing",
                      "install a package instead");
    }
    Result<package::Check> check = package::check(kept, trustedKey);
    if (!check.ok() && check.error().code == ErrorCode::kUsage) {
        throw Failure(check.error());  // of the key
    }
    if (!check.ok()) {
        throw Failure(ErrorCode::kRefused,
                      "the rollback package '" + kept + "' is damaged: " + check.error().text,
                      "install a package instead");
    }
    if (check.value().lacksOnlyTrust()) {
        throw Failure(ErrorCode::kRefused,
                      "the rollback package '" + kept + "' was refused: " + check.value().faults.front(),
                      "use the public key of who signed it, or install a package instead");
    }
    if (!check.value().inOrder()) {
        throw damaged(check.value());
    }
    return std::move(check).value();
}

// Until activation the installed package lies where the kept one lay: going back would activate it instead
// and lose the package of the running software.
void requireNothingAwaitsActivation() {
    if (UPGRADE_isUpgraded()) {
        throw Failure(ErrorCode::kOther,
                      "an installed package awaits activation, there is nothing to go back from",
                      "the device keeps its running software until 'upgradectl activate': activate the "
                      "package, or install another one");
    }
}

bool slotHolds(const BoardState& state, const std::string& slot, const package::Check& check) {
    const auto known = state.slots.find(slot);
    return known != state.slots.end() && holds(check, known->second);
}

const std::string* slotBesides(const BoardState& state, const std::string& slot) {
    for (const auto& [name, content] : state.slots) {
        if (name != slot) {
            return &name;
        }
    }
    return nullptr;
}

// As the library decides it: by what the microcontroller tells, or by what is on record where it is silent. Otherwise the
// library would switch to a slot that nobody has looked at.
bool fitsMicrocontroller(const package::Version& version) {
    std::string text;
    UPGRADE_get_cur_ver_str(text);
    const Result<package::Version> current = package::parseVersion(text);
    return current.ok() && current.value().mcu == version.mcu;
}

// A switch goes to the slot that does not start next.
bool canSwitch(const BoardState& state, const package::Check& check) {
    const std::string* other = slotBesides(state, state.nextSlot);
    std::string ignored;
    return other != nullptr && slotHolds(state, *other, check) &&
           fitsMicrocontroller(check.trailer.version) && askBoardForSlot(*other, ignored) == Answer::kGiven;
}

// The boot loader has left it: it lies in the place of the kept package for nobody to lose it.
void requireNotFailed(const std::string& release) {
    const Result<std::vector<HistoryEntry>> history = readHistory();
    if (history.ok() && hasFailedTrial(history.value(), release)) {
        throw Failure(ErrorCode::kRefused,
                      "the rollback package '" + UpgradeProc::rollbackPkg + "' holds " + release +
                          ", which failed its trial on this device",
                      "install another package");
    }
}

// All that is in the way of a run, as before an installation.
void requireRunPossible(const package::Check& check) {
    RoomFor room = {UpgradeProc::rollbackPkg, check.trailer.payloadBytes, 0, true};
    for (const package::ComponentCheck& component : check.components) {
        room.entryBytes += storageFor(component.bytes) + storageFor(1);  // with its signature
    }
    Preflight found;
    found.obstacles = roomObstacles(room);
    for (Obstacle& obstacle : writableObstacles()) {
        found.obstacles.push_back(std::move(obstacle));
    }
    if (auto obstacle = microcontrollerObstacle(releaseOnDevice(check.trailer.version))) {
        found.obstacles.push_back(std::move(*obstacle));
    }
    if (!found.clear()) {
        throw Failure(errorOf(found));
    }
}

WayBack findWay(const package::Check& check) {
    WayBack way;
    way.release = package::formatVersion(check.trailer.version);
    requireNotFailed(way.release);
    way.components = check.components;
    BoardState state;
    std::string error;
    switch (askBoard(state, error)) {
        case Answer::kFailed:
            throw Failure(ErrorCode::kOther, "the slots are not known: " + error, "fix that");
        case Answer::kNone:
            way.bySwitch = fitsMicrocontroller(check.trailer.version);  // as the library itself takes it
            return way;
        case Answer::kGiven:
            break;
    }
    if (state.nextSlot == state.runningSlot && slotHolds(state, state.runningSlot, check) &&
        fitsMicrocontroller(check.trailer.version)) {
        throw Failure(ErrorCode::kRefused,
                      "the rollback package '" + UpgradeProc::rollbackPkg + "' holds " + way.release +
                          ", which runs already",
                      "there is nothing to go back to: install a package instead");
    }
    way.bySwitch = canSwitch(state, check);
    return way;
}

WayBack wayBack(const std::optional<std::filesystem::path>& trustedKey) {
    requireOwner();
    requireNothingAwaitsActivation();
    const package::Check check = checkKept(trustedKey);
    WayBack way = findWay(check);
    if (!way.bySwitch) {
        requireRunPossible(check);
    }
    return way;
}

// A run removes the kept package before it flashes, so it works on a copy. What others have put in the copy's place must not
// be flashed instead.
bool copyKeptPackage() {
    return COMMON_YR::cpFile(UpgradeProc::rollbackPkg, UpgradeProc::recvPkg) >= 0;
}

int goBackByRun() {
    const int result = UPGRADE_main_proc_fun(UpgradeProc::recvPkg);
    UPGRADE_set_status_last_runtime(result < 0 ? UPG_STS_LAST_RT_ROLLBACK_FAILURE
                                               : UPG_STS_LAST_RT_ROLLBACK_SUCCESS);
    return result < 0 ? result : UPGRADE_activate();
}

// A switch that was not made leaves nothing to activate: the next rollback begins anew.
int goBackBySwitch() {
    BoardState before;
    BoardState after;
    std::string ignored;
    const bool known = askBoard(before, ignored) == Answer::kGiven;
    const int result = UPGRADE_rollback_mpu();
    if (result < 0 && known && askBoard(after, ignored) == Answer::kGiven &&
        after.nextSlot == before.nextSlot) {
        UpgradeProc::getInstance()->setUpgraded(false);
    }
    return result;
}

// What awaits its activation has its package until then.
void requireInstalledPackage() {
    if (!UPGRADE_isUpgraded()) {
        throw Failure(ErrorCode::kOther, "no installed package awaits activation",
                      "install one: upgradectl install PACKAGE");
    }
    if (!COMMON_YR::isFileExist(UpgradeProc::rollbackPkg.c_str())) {
        throw Failure(ErrorCode::kOther, "the package of what awaits activation is missing",
                      "run 'upgradectl discard', then install the package again");
    }
}

// What was cut off may have been a switch that was not made.
void requireSwitched(const std::string& completed) {
    BoardState state;
    std::string ignored;
    if (askBoard(state, ignored) == Answer::kGiven && state.nextSlot == state.runningSlot) {
        throw Failure(ErrorCode::kOther, completed + ", and the running software starts next",
                      "if other software is to start: 'upgradectl rollback', or install a package");
    }
}

std::string activateOrComplete() {
    requireOwner();
    std::string completed = completeTornActivation();
    if (!completed.empty()) {
        requireSwitched(completed);
        return completed;  // a second switch would lead back
    }
    requireInstalledPackage();
    HistoryEntry entry;
    entry.event = "activate";
    entry.outcome = "ok";
    entry.release = package::readVersion(UpgradeProc::rollbackPkg);
    UpgradeProc::getInstance()->setActivated(false);  // of an earlier run of this process
    if (UPGRADE_activate() < 0) {
        throw Failure(ErrorCode::kOther, "the device could not be switched to the installed software",
                      "mend what the device: lines say, then try again");
    }
    (void)appendHistory(entry);  // the activation stands, whatever becomes of its note
    return "activated";
}

void confirmRunning() {
    requireOwner();
    // A driver of its own: the controller has none where that of the microcontroller, which is not needed here, is
    // not ready.
    UpgradeMpu driver;
    if (!driver.initOk) {
        throw Failure(ErrorCode::kOther, "the main processor's flash driver is not ready",
                      "mend what the device: lines say");
    }
    BoardState before;
    std::string ignored;
    const bool wasOnTrial = askBoard(before, ignored) == Answer::kGiven && before.onTrial;
    if (driver.activate(false) < 0) {
        throw Failure(ErrorCode::kOther, "the running slot could not be confirmed",
                      "mend what the device: lines say, then try again before the device is restarted");
    }
    if (wasOnTrial) {
        HistoryEntry entry;
        entry.event = "confirm";
        entry.outcome = "ok";
        UPGRADE_getIntervalVersionString(entry.release);
        (void)appendHistory(entry);  // the confirmation stands, whatever becomes of its note
    }
}

}  // namespace

Result<std::string> activate() {
    return resultOf([] { return activateOrComplete(); });
}

Result<void> confirm() {
    return resultOf([] { confirmRunning(); });
}

Result<WayBack> findWayBack(const std::optional<std::filesystem::path>& trustedKey) {
    return resultOf([&] { return wayBack(trustedKey); });
}

int goBack(const WayBack& way) {
    UpgradeProc::getInstance()->setActivated(false);  // or nothing would be switched
    const Result<package::TrailerReading> kept = package::readTrailer(UpgradeProc::rollbackPkg);
    const bool fits = kept.ok() && fitsMicrocontroller(kept.value().trailer.version);
    // Where the microcontroller fits, the library's own rollback is the switch; otherwise it is a run, of the copy.
    if (way.bySwitch && fits) {
        return goBackBySwitch();
    }
    if (!copyKeptPackage()) {
        return -1;
    }
    return fits ? goBackByRun() : UPGRADE_rollback_mpu();
}

}  // namespace kavro::agent
