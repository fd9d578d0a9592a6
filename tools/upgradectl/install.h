// Installing a package on the device, and going back to the kept one: the commands that make a run.
#pragma once

#include <filesystem>

#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/run_session.h"

namespace upgradectl {

// Installs a package and shows the run. Throws Failure: refused, flashing failed, given up.
// UPGRADE_init is not called: it belongs to the start of the device, and a run does not depend on it.
void install(const std::filesystem::path& package, const RunOptions& options, const Interrupts& interrupts);

// Rolls back to the kept package and activates it, by a run that is shown or, when the microcontroller
// already runs its version, at once. Throws Failure.
void rollback(const RunOptions& options, const Interrupts& interrupts);

}  // namespace upgradectl
