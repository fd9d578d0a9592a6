// What is around a run of any kind: the checks before it, what is shown, and the report after it.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "package/check.h"
#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/run_watch.h"

namespace upgradectl {

// What a user may ask of install and rollback.
struct RunOptions {
    bool plain = false;
    bool json = false;
    bool force = false;                // install only
    std::chrono::seconds patience{0};  // with another process that changes the device
    std::optional<std::filesystem::path> trustedKey;
    std::optional<std::filesystem::path> report;
};

// What was found before a run that may be made.
struct Findings {
    std::vector<kavro::package::ComponentCheck> components;  // empty where nobody has asked for them
    std::string keyDigest;             // of the key that the package carries, as package::Check tells it
    std::vector<std::string> notices;  // sentences for people
};

struct RunKind {
    std::string command;            // "install"
    std::filesystem::path package;  // as the user knows it
    // Throws Failure when a run must not be made, and says in any case what it has found.
    std::function<void(Findings&)> require;
    std::function<int()> run;  // makes it
    // Says how it went: the result for the user, or a Failure.
    std::function<RunEnd(const RunOutcome&)> judge;
};

// Takes the device, makes a run and shows it. Throws Failure when it was refused, has failed or was given up; that is shown and
// reported as well. A report is written in each case but two: when it must not or cannot be where it was asked for, which
// is an error before anything is done, and when it cannot be written after all, which is only a warning.
void performRun(const RunKind& kind, const RunOptions& options, const Interrupts& interrupts);

}  // namespace upgradectl
