// What is around a run of any kind: the checks before it, what is shown, and the report after it.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/run_watch.h"

namespace upgradectl {

// What a user may ask of install and rollback.
struct RunOptions {
    bool plain = false;
    bool json = false;
    std::optional<std::filesystem::path> trustedKey;
    std::optional<std::filesystem::path> report;
};

struct RunKind {
    std::string command;            // "install"
    std::filesystem::path package;  // as the user knows it
    std::function<void()> require;  // throws Failure when a run makes no sense; quick
    std::function<int()> run;       // makes it
    // Says how it went: the result for the user, or a Failure.
    std::function<RunEnd(const RunOutcome&)> judge;
};

// Makes a run and shows it. Throws Failure when it was refused, has failed or was given up; that is shown and
// reported as well. A report is written in each case but two: when it must not or cannot be where it was asked for, which
// is an error before anything is done, and when it cannot be written after all, which is only a warning.
void performRun(const RunKind& kind, const RunOptions& options, const Interrupts& interrupts);

}  // namespace upgradectl
