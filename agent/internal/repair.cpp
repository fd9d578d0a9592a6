#include "agent/internal/repair.h"

#include <filesystem>
#include <optional>

#include "agent/history.h"
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

// The package that brings the running release; empty when none is kept.
std::string packageOf(const COMMON_YR::BoardSlotContent& content) {
    for (const std::string& kept : {UpgradeProc::currentPkg, UpgradeProc::rollbackPkg}) {
        if (holds(kept, content)) {
            return kept;
        }
    }
    return {};
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
    require(UPGRADE_mpu_mcu(UpgradeProc::storePath, flag, false) >= 0, "it cannot be programmed");
}

std::string versionText(int version) {
    return version < 0 ? "no application" : "version " + std::to_string(version);
}

void note(const HistoryEntry& entry) {
    (void)appendHistory(entry);  // what was done stands, whatever becomes of its note
}

}  // namespace

std::string repairMicrocontroller(const COMMON_YR::BoardSlotContent& content) {
    const std::optional<package::Version> running = runningVersion();
    const int version = microcontrollerVersion();
    if (!running || version == running->mcu) {
        return {};
    }
    const std::string package = microcontrollerAnswers() ? packageOf(content) : std::string();
    if (package.empty()) {
        return {};  // the state tells what is wrong
    }
    HistoryEntry entry;
    entry.event = "repair";
    entry.release = package::formatVersion(*running);
    entry.package = package;
    try {
        program(package, *running);
    } catch (const Failure& failure) {
        entry.outcome = nameOf(failure.error().code);
        entry.text = "the microcontroller (" + versionText(version) + ") could not be brought to version " +
                     std::to_string(running->mcu) + ": " + failure.error().text;
        note(entry);
        return entry.text;
    }
    entry.outcome = "ok";
    entry.text = "the microcontroller was programmed with version " + std::to_string(running->mcu) +
                 " of the running release; it had " + versionText(version);
    note(entry);
    return entry.text;
}

}  // namespace kavro::agent
