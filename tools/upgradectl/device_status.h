// The commands that ask the device: status and versions. With json they print one object, whose member names
// docs/upgradectl.md lists; programs depend on them.
#pragma once

#include "tools/upgradectl/own_output.h"

namespace upgradectl {

// Tells versions, state, outcome of the last run and packages. The outcome stays recorded for the application
// unless consume is set. Throws Failure, after telling what is known, when a version cannot be read or the flash drivers
// are not ready.
void showStatus(const OwnOutput& output, bool consume, bool json);

// Tells the versions of the running software, of what is flashed, and of the packages that are kept. Throws when one of the
// device's own cannot be read.
void showVersions(const OwnOutput& output, bool json);

}  // namespace upgradectl
