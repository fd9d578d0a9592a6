#include "tools/upgradectl/torn_activation.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "package/check.h"
#include "platform/config/platform_config.h"
#include "platform/config/written_slot.h"
#include "platform/flash/environment_boot_control.h"
#include "platform/flash/slot_map.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

constexpr const char* kMarker = "/config/upgraded";
constexpr const char* kAside = "/firmware/temp";  // the current package, while the two change places
constexpr const char* kPackageDirectory = "/firmware";

bool exists(const std::string& path) {
    return COMMON_YR::isFileExist(path.c_str());
}

Failure incomplete(const std::string& why) {
    return {ErrorCode::kOther, "an activation that was cut off cannot be completed: " + why,
            "mend that, and run 'upgradectl init' again before anything is activated"};
}

// What the slot that starts next must hold. Nothing when a slot that was written awaits its activation, or when the
// boot environment does not say.
std::optional<kavro::SlotContent> activatedContent() {
    std::string error;
    kavro::SlotMap map;
    kavro::BootState state;
    std::optional<kavro::WrittenSlot> written;
    if (!kavro::readSlotMap(kavro::readPlatformConfig(), map, error) ||
        !kavro::EnvironmentBootControl(map.bootEnvironmentConfig, map.slots).load(state, error) ||
        !kavro::readWrittenSlot(map.writtenSlotFile, written, error)) {
        throw incomplete(error);
    }
    const auto known = state.content.find(state.bootSlot);
    const bool awaits = written && !kavro::isActivated(*written, state);
    return awaits || known == state.content.end() ? std::nullopt : std::optional(known->second);
}

bool isOf(const kavro::package::ComponentCheck& component, const kavro::PartContent& content) {
    return component.sha256 == content.sha256 && static_cast<long long>(component.bytes) == content.bytes;
}

// A package that cannot be read holds nothing.
bool holds(const std::string& package, const kavro::SlotContent& content) {
    if (!exists(package)) {
        return false;
    }
    const kavro::Result<kavro::package::Check> checked = kavro::package::check(package);
    if (!checked.ok()) {
        return false;
    }
    std::size_t found = 0;
    for (const kavro::package::ComponentCheck& component : checked.value().components) {
        for (std::size_t part = 0; part < content.size(); ++part) {
            const bool same =
                component.name == kavro::kSlotComponents[part] && isOf(component, content[part]);
            found += same ? 1 : 0;
        }
    }
    return found == content.size();
}

void move(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        throw incomplete("'" + from + "' cannot be renamed to '" + to + "': " + kavro::reasonOf(errno));
    }
}

// Goes on where the renames have stopped. Each leaves a state from which this goes on again.
void exchangeTheRest(bool begun) {
    const std::string& current = UpgradeProc::currentPkg;
    const std::string& rollback = UpgradeProc::rollbackPkg;
    if (!begun && exists(current)) {
        move(current, kAside);
    }
    if (!exists(current)) {
        move(rollback, current);
    }
    if (exists(kAside)) {
        move(kAside, rollback);
    }
}

// Between the first and the last rename there are two packages, one of them aside.
bool isExchangeBegun() {
    return exists(kAside) && exists(UpgradeProc::currentPkg) != exists(UpgradeProc::rollbackPkg);
}

std::string completeExchange(const kavro::SlotContent& content) {
    const bool begun = isExchangeBegun();
    const bool waits = !holds(UpgradeProc::currentPkg, content) && holds(UpgradeProc::rollbackPkg, content);
    if (!begun && !waits) {
        return "an activation or a rollback was cut off; the packages are in their places";
    }
    exchangeTheRest(begun);
    return "an activation was cut off; its packages were given their places";
}

// The marker lies on another file system, and its removal may last where an exchange that nobody flushed does not: also
// one that was made before its program was killed.
void flushPackages() {
    if (!kavro::flushDirectory(kPackageDirectory)) {
        throw incomplete(std::string("'") + kPackageDirectory +
                         "' cannot be flushed: " + kavro::reasonOf(errno));
    }
}

}  // namespace

std::string completeTornActivation() {
    const COMMON_YR::CancelHold hold;
    // Without either, packages in each other's places are no sign: the boot loader's way back leaves them like that.
    if (!exists(kMarker) && !isExchangeBegun()) {
        return {};
    }
    const std::optional<kavro::SlotContent> content = activatedContent();
    if (!content) {
        return {};
    }
    std::string done = completeExchange(*content);
    flushPackages();
    COMMON_YR::rmFile(UpgradeProc::currentCfg);  // of the software before
    COMMON_YR::rmFile(kMarker);
    return done;
}

}  // namespace upgradectl
