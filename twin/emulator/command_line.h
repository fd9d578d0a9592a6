// The command line of mcu-emulator.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "twin/emulator/fault.h"

namespace kavro::emulator {

enum class Command { kRun, kFormat, kVersion, kHelp };

struct CommandLine {
    Command command = Command::kHelp;
    std::string flash;
    std::string listen;          // run
    std::vector<Fault> faults;   // run
    std::string lockFile;        // run, "" without one
    std::optional<int> version;  // format
    std::string application;     // format, "" without one
};

// Reads the words behind the program's name. Nothing, with the reason, when they make no sense.
std::optional<CommandLine> readCommandLine(const std::vector<std::string>& words, std::string& error);

std::string usageText();

}  // namespace kavro::emulator
