// The commands that ask or change the device at once: init, status, activate, confirm.
#pragma once

#include "tools/upgradectl/own_output.h"

namespace upgradectl {

// Does what the device's application does once after each start, and says where packages go. Throws
// ToolError.
void initDevice(const OwnOutput& output);

// Tells versions, state, outcome of the last run and packages. The outcome stays recorded for the application
// unless consume is set. Throws ToolError, after telling what is known, when a version cannot be read.
void showStatus(const OwnOutput& output, bool consume);

// Activates what was installed. Throws ToolError.
void activate(const OwnOutput& output);

// Ends the trial of the running software, if it is on one. Throws ToolError.
void confirm(const OwnOutput& output);

}  // namespace upgradectl
