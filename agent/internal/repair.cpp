#include "agent/internal/repair.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <vector>

#include "agent/history.h"
#include "agent/internal/board.h"
#include "agent/internal/release_checks.h"
#include "agent/internal/slots.h"
#include "base/failure.h"
#include "package/trailer.h"
#include "package/version.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNext = "install the running release again";

int microcontrollerVersion() {
    return velGetMcuVersion(UpgradeProc::getInstance()->node);
}

std::optional<package::Version> runningVersion() {
    std::string text;
    UPGRADE_getIntervalVersionString(text);
    const Result<package::Version> version = package::parseVersion(text);
    return version.ok() ? std::optional<package::Version>(version.value()) : std::nullopt;
}

// The packages that bring what the running slot holds: two, when they differ in other components only.
std::vector<std::string> packagesOf(const COMMON_YR::BoardSlotContent& content) {
    std::vector<std::string> packages;
    for (const std::string& kept : {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg}) {
        if (holds(kept, content)) {
            packages.push_back(kept);
        }
    }
    return packages;
}

bool bringsMicrocontroller(const std::string& package, int version) {
    const Result<package::TrailerReading> reading = package::readTrailer(package);
    return reading.ok() && reading.value().trailer.version.mcu == version;
}

// The package to program it from; empty when there is none, or when it has the firmware of one already.
std::string packageToProgram(const COMMON_YR::BoardSlotContent& content, int version) {
    const std::vector<std::string> packages = packagesOf(content);
    const auto brings = [version](const std::string& package) {
        return bringsMicrocontroller(package, version);
    };
    return packages.empty() || std::any_of(packages.begin(), packages.end(), brings) ? std::string()
                                                                                     : packages.front();
}

void require(bool done, const std::string& step) {
    if (!done) {
        throw Failure(ErrorCode::kOther, step, kNext);
    }
}

// The library cuts the package that it unpacks, so it gets a copy. The copy and the unpacked files go, whatever comes of it.
class WorkingCopy {
  public:
    explicit WorkingCopy(const std::string& package) {
        std::error_code error;
        fs::remove_all(UpgradeProc::storePath, error);
        require(!error && COMMON_YR::cpFile(package, UpgradeProc::upgradePkg) >= 0,
                "its package cannot be copied");
    }
    ~WorkingCopy() {
        std::error_code ignored;
        fs::remove(UpgradeProc::upgradePkg, ignored);
        fs::remove_all(UpgradeProc::storePath, ignored);
    }
    WorkingCopy(const WorkingCopy&) = delete;
    WorkingCopy& operator=(const WorkingCopy&) = delete;
};

void program(const std::string& package, const package::Version& running) {
    const WorkingCopy copy(package);
    UPGADE_PKG_OUT_T unpacked;
    require(UPGRADE_proc_upgrade_pkg(unpacked, {UpgradeProc::upgradePkg, UpgradeProc::storePath}, false) == 0,
            "its package cannot be unpacked");
    require(UPGRADE_verify_signature(UpgradeProc::storePath, unpacked.components, unpacked.pubkey_file) == 0,
            "the signatures of its package do not verify");
    // The version record follows what is programmed: unfinished while it is, the package's afterwards.
    UpgradeProc* proc = UpgradeProc::getInstance();
    proc->currentVersion = {running.hw, running.mpu, running.mcu, running.bld};
    proc->targetVersion = unpacked.version;
    UPGRADE_FLAG_T flag;
    flag.mcu = true;
    const bool programmed = UPGRADE_mpu_mcu(UpgradeProc::storePath, flag, false) >= 0;
    // Whoever follows the device's messages must not see a run that never ends.
    proc->resetRun();
    proc->onProgrameStatusChg();
    require(programmed, "it cannot be programmed");
}

std::string versionText(int version) {
    return version < 0 ? "no application" : "version " + std::to_string(version);
}

// What was done stands, whatever becomes of its note.
std::string noted(const HistoryEntry& entry) {
    (void)appendHistory(entry);
    return entry.text;
}

std::string tryToProgram(const std::string& package, const package::Version& running, int version) {
    HistoryEntry entry;
    entry.event = "repair";
    entry.release = package::formatVersion(running);
    entry.package = package;
    try {
        program(package, running);
    } catch (const Failure& failure) {
        entry.outcome = nameOf(failure.error().code);
        entry.text = "the microcontroller (" + versionText(version) + ") could not be brought to version " +
                     std::to_string(running.mcu) + ": " + failure.error().text;
        return noted(entry);
    }
    entry.outcome = "ok";
    entry.text = "the microcontroller was programmed with version " + std::to_string(running.mcu) +
                 " of the running release; it had " + versionText(version);
    return noted(entry);
}

std::string repairMicrocontroller(const COMMON_YR::BoardSlotContent& content) {
    const std::optional<package::Version> running = runningVersion();
    const int version = microcontrollerVersion();
    if (!running || version == running->mcu || !microcontrollerAnswers()) {
        return {};  // of a silent one the state tells
    }
    const std::string package = packageToProgram(content, version);
    return package.empty() ? std::string() : tryToProgram(package, *running, version);
}

}  // namespace

std::string bringMicrocontrollerBack() {
    COMMON_YR::BoardState state;
    std::string ignored;
    if (UPGRADE_isUpgraded() || askBoard(state, ignored) != Answer::kGiven ||
        state.nextSlot != state.runningSlot || !state.repairsMicrocontroller) {
        return {};
    }
    const auto running = state.slots.find(state.runningSlot);
    return running == state.slots.end() ? std::string() : repairMicrocontroller(running->second);
}

}  // namespace kavro::agent
