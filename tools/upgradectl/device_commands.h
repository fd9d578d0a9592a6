// The commands that change the device at once: init, activate, discard, confirm.
#pragma once

#include "tools/upgradectl/own_output.h"

namespace upgradectl {

// Does what the device's application does once after each start, and says where packages go. Throws
// Failure.
void initDevice(const OwnOutput& output);

// Activates what was installed. Throws Failure.
void activate(const OwnOutput& output);

// Drops what was installed and not activated. Throws Failure.
void discard(const OwnOutput& output);

// Ends the trial of the running software, if it is on one. Throws Failure.
void confirm(const OwnOutput& output);

}  // namespace upgradectl
