#include "twin/emulator/command_line.h"

#include <algorithm>
#include <charconv>

namespace kavro::emulator {
namespace {

constexpr const char* kUsage =
    R"(usage: mcu-emulator run --flash FILE --listen PATH [--fault SPEC]... [--until-unlocked LOCKFILE]
       mcu-emulator format FILE [--version N | --application FILE.s19]
       mcu-emulator version FILE
       mcu-emulator help

run       powers the microcontroller on: its flash memory is FILE, its link the unix stream socket PATH. It runs
          until SIGTERM or SIGINT, or until nobody holds a lock (flock) on LOCKFILE any more. What it is asked and
          answers goes to standard error. A reset of the main processor makes the file reset_request beside FILE
format    makes a flash memory with a boot loader and, on demand, a small application of version N or the
          application of an S-record file
version   prints the version of the application that would run

A fault SPEC is KIND[@SERVICE]=FIRST[..[LAST]][:VALUE], for example lose=3, drop@36=5.., delay@31=1..2:200.
Requests are counted from 1 since power on, with @SERVICE (two hexadecimal digits) only those of that service.
A request that is sent again counts, but not for busy and refuse; power-loss and corrupt count the blocks that are
written instead.
)";

constexpr const char* kExitCodes = R"(
exit codes: 0 ended in order, 1 failed or no version, 2 wrong command line, 3 lost power, 4 the flash memory is
in use by another emulator
)";

bool readVersion(const std::string& text, CommandLine& line, std::string& error) {
    int number = -1;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (problem != std::errc() || end != text.data() + text.size() || number < 0) {
        error = "--version takes a number from 0 to 2147483647, not '" + text + "'";
        return false;
    }
    line.version = number;
    return true;
}

bool readFault(const std::string& text, CommandLine& line, std::string& error) {
    const std::optional<Fault> fault = parseFault(text, error);
    if (fault) {
        line.faults.push_back(*fault);
    }
    return fault.has_value();
}

template <std::string CommandLine::*kMember>
bool keep(const std::string& text, CommandLine& line, std::string& error) {
    (void)error;
    line.*kMember = text;
    return true;
}

struct OptionRow {
    Command command;
    const char* name;
    bool (*read)(const std::string& text, CommandLine& line, std::string& error);
};

constexpr OptionRow kOptions[] = {
    {Command::kRun, "--flash", keep<&CommandLine::flash>},
    {Command::kRun, "--listen", keep<&CommandLine::listen>},
    {Command::kRun, "--fault", readFault},
    {Command::kRun, "--until-unlocked", keep<&CommandLine::lockFile>},
    {Command::kFormat, "--version", readVersion},
    {Command::kFormat, "--application", keep<&CommandLine::application>},
};

struct CommandRow {
    const char* name;
    Command command;
    bool takesFile;
};

constexpr CommandRow kCommands[] = {
    {"run", Command::kRun, false},   {"format", Command::kFormat, true}, {"version", Command::kVersion, true},
    {"help", Command::kHelp, false}, {"--help", Command::kHelp, false},  {"-h", Command::kHelp, false},
};

bool readOptions(const std::vector<std::string>& words, std::size_t at, CommandLine& line,
                 std::string& error) {
    for (; at < words.size(); at += 2) {
        const std::string& name = words[at];
        const auto* const row = std::find_if(std::begin(kOptions), std::end(kOptions), [&](const auto& each) {
            return each.command == line.command && each.name == name;
        });
        if (row == std::end(kOptions)) {
            error = words[0] + " does not know '" + name + "'";
            return false;
        }
        if (at + 1 == words.size() || words[at + 1].empty()) {
            error = name + " needs a value";
            return false;
        }
        if (!row->read(words[at + 1], line, error)) {
            return false;
        }
    }
    return true;
}

// What is missing or contradicts itself; "" for nothing.
std::string problemOf(const CommandLine& line) {
    if (line.command == Command::kRun && line.flash.empty()) {
        return "run needs --flash FILE";
    }
    if (line.command == Command::kRun && line.listen.empty()) {
        return "run needs --listen PATH";
    }
    if (line.version && !line.application.empty()) {
        return "format takes --version or --application, not both";
    }
    return "";
}

}  // namespace

std::optional<CommandLine> readCommandLine(const std::vector<std::string>& words, std::string& error) {
    const std::string name = words.empty() ? "" : words[0];
    const auto* const row = std::find_if(std::begin(kCommands), std::end(kCommands),
                                         [&](const CommandRow& each) { return each.name == name; });
    if (row == std::end(kCommands)) {
        error = "unknown command '" + name + "'";
        return std::nullopt;
    }
    CommandLine line;
    line.command = row->command;
    std::size_t at = 1;
    if (row->takesFile) {
        if (words.size() < 2 || words[1].empty() || words[1].rfind("--", 0) == 0) {
            error = name + " needs FILE";
            return std::nullopt;
        }
        line.flash = words[at++];
    }
    if (!readOptions(words, at, line, error)) {
        return std::nullopt;
    }
    error = problemOf(line);
    return error.empty() ? std::optional<CommandLine>(line) : std::nullopt;
}

std::string usageText() {
    return kUsage + faultKindsText() + kExitCodes;
}

}  // namespace kavro::emulator
