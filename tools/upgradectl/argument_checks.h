// What arguments of several commands must be, so that a wrong one is an error of the command line that names it.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>

namespace upgradectl {

// A script's unset variable gives an empty text where a path belongs.
CLI::Validator isPath();

// Adds --wait, whose seconds go to patience.
void addWait(CLI::App& command, std::chrono::milliseconds& patience);

// For a number that counts something.
CLI::Validator isAtLeastOne();

}  // namespace upgradectl
