#include "agent/internal/release_checks.h"

#include <cstdio>

#include "agent/history.h"
#include "common/board.h"
#include "common/message_node.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

// "V01.105.007.002"; a part may be negative, as no version of a package is. Nothing when it cannot be read.
std::optional<L_VERSION_T> deviceVersion(int (*query)(std::string& text)) {
    std::string text;
    L_VERSION_T version;
    constexpr int kParts = 4;
    if (query(text) < 0 || std::sscanf(text.c_str(), "V%d.%d.%d.%d", &version.hw, &version.mpu, &version.mcu,
                                       &version.bld) != kParts) {
        return std::nullopt;
    }
    return version;
}

bool isSame(const std::optional<L_VERSION_T>& device, const package::Version& release) {
    return device && device->hw == release.hw && device->mpu == release.mpu && device->mcu == release.mcu &&
           device->bld == release.bld;
}

std::string versionOrNone(const std::optional<int>& version) {
    return version && *version >= 0 ? "version " + std::to_string(*version) : "an unknown version";
}

}  // namespace

// One that was interrupted in its programming waits in its boot loader, gives no version and takes the next programming:
// there it takes the first request of each, to switch its programming link on.
bool microcontrollerAnswers() {
    void* const node = UpgradeProc::getInstance()->node;
    if (velGetMcuVersion(node) >= 0) {
        return true;
    }
    if (velSpiDevCtrl(node, true) < 0) {
        return false;
    }
    velSpiDevCtrl(node, false);
    return true;
}

ReleaseOnDevice releaseOnDevice(const package::Version& version) {
    // A run takes versions that cannot be read for 0.
    const std::optional<L_VERSION_T> flashed = deviceVersion(UPGRADE_get_cur_ver_str);
    const int has = flashed ? flashed->mcu : 0;
    ReleaseOnDevice release;
    release.version = package::formatVersion(version);
    release.microcontroller = version.mcu;
    release.recordedMicrocontroller = flashed ? std::optional<int>(flashed->mcu) : std::nullopt;
    release.programsMicrocontroller = version.mcu != has;
    release.runs = isSame(deviceVersion(UPGRADE_getIntervalVersionString), version);
    release.flashed = isSame(flashed, version);
    return release;
}

std::optional<Obstacle> microcontrollerObstacle(const ReleaseOnDevice& release) {
    if (!release.programsMicrocontroller || microcontrollerAnswers()) {
        return std::nullopt;
    }
    return Obstacle{"microcontroller",
                    "the microcontroller does not answer, and the package brings it version " +
                        std::to_string(release.microcontroller) + " in place of " +
                        versionOrNone(release.recordedMicrocontroller),
                    "check its power, and the link that /etc/kavro/platform.json names", false};
}

std::optional<Obstacle> slotObstacles() {
    if (&COMMON_YR::boardReadState == nullptr) {
        return std::nullopt;  // this board does not tell
    }
    COMMON_YR::BoardState state;
    std::string error;
    if (COMMON_YR::boardReadState(state, error) < 0) {
        return Obstacle{"slot_unknown", "the device's slots are not known: " + error,
                        "mend that; a damaged record of the written slot may be removed", false};
    }
    if (state.onTrial && state.nextSlot == state.runningSlot) {
        return Obstacle{
            "on_trial",
            "the running slot " + state.runningSlot +
                " is on trial and not confirmed, and an installation overwrites the slot to fall back to",
            "confirm the running software with 'upgradectl confirm', or install all the same with --force",
            true};
    }
    return std::nullopt;
}

// What was done to the device is not known where its record cannot be read: then nothing speaks against the release.
std::optional<Obstacle> failedTrialObstacle(const std::string& version) {
    const Result<std::vector<HistoryEntry>> history = readHistory();
    if (!history.ok() || !hasFailedTrial(history.value(), version)) {
        return std::nullopt;
    }
    return Obstacle{"failed_trial",
                    "the device was on trial with " + version + " and has fallen back from it",
                    "install another release, or try this one again with --force", true};
}

std::optional<Obstacle> sameVersionObstacle(const ReleaseOnDevice& release) {
    if (!release.runs || !release.flashed) {
        return std::nullopt;
    }
    return Obstacle{
        "same_version",
        "the device runs " + release.version + " already, and nothing older would be left to go back to",
        "install another release, or this one all the same with --force", true};
}

}  // namespace kavro::agent
