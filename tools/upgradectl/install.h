// Installing a package on the device, and going back to the kept one: the commands that make a run.
#pragma once

#include <filesystem>
#include <optional>

#include "agent/run.h"
#include "tools/upgradectl/interrupts.h"

namespace upgradectl {

// What a user may ask of install and rollback, besides what the agent does with it.
struct ShownRun {
    kavro::agent::RunOptions options;
    bool plain = false;
    bool json = false;
    std::optional<std::filesystem::path> report;
};

// Installs a package and shows the run; an interrupt asks to give it up. Throws Failure: refused, flashing failed, given up;
// that is shown and reported as well. A report is written in each case but two: when it must not or cannot be where it was
// asked for, which is an error before anything is done, and when it cannot be written after all, which is only a warning.
void install(const std::filesystem::path& package, const ShownRun& wanted, const Interrupts& interrupts);

// Rolls back to the kept package and activates it, in the same way.
void rollback(const ShownRun& wanted, const Interrupts& interrupts);

}  // namespace upgradectl
