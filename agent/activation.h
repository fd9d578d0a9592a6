// What starts next: activating, and going back. The caller has the device (agent/lock.h).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/check.h"

namespace kavro::agent {

// Makes the installed package the one that starts next. One that was cut off after its switch is completed, not made again.
// Returns what was done, a sentence without a full stop. An error is: other, when nothing awaits its activation or the
// switch failed; nothing has changed then. Blocks until the slot was compared with what must be in it.
KAVRO_EXPORT Result<std::string> activate();

// Drops the installed package that awaits its activation: the device goes on with what it runs, and the microcontroller gets
// the firmware of that back, where the package that brings it is kept and the board wants it. What the other slot holds
// stays, and nothing starts it. Cut off anywhere, the next start completes it. Returns what was done, sentences without a
// full stop; the first tells of the package. An error is: other, when nothing awaits its activation, or a file cannot be removed.
// Blocks for as long as the microcontroller's programming takes.
KAVRO_EXPORT Result<std::vector<std::string>> discard();

// Tells the boot loader that the running software is good; harmless without a trial. An error is: other, when the flash driver of
// the main processor is not ready, or the boot loader's state cannot be written.
KAVRO_EXPORT Result<void> confirm();

// How the device goes back to the kept package.
struct WayBack {
    std::string release;                              // that runs then: "V01.104.007.002"
    std::vector<package::ComponentCheck> components;  // of the package
    bool bySwitch = false;  // the other slot holds it, and the microcontroller fits: nothing is to be written
};

// Looks for the way back, without changing anything. An error is: refused, when the kept package is damaged, does not carry the
// trusted key (PEM, public), has failed its trial, or holds the release that runs and starts next already; other, when there is none, or when an
// installed package awaits its activation. Blocks until package and slot were read.
KAVRO_EXPORT Result<WayBack> findWayBack(const std::optional<std::filesystem::path>& trustedKey);

// Goes it: by the switch, or by a run that writes the package to the other slot, and the activation. Returns as
// UPGRADE_rollback_mpu does, and can be watched and given up like it.
KAVRO_EXPORT int goBack(const WayBack& way);

}  // namespace kavro::agent
