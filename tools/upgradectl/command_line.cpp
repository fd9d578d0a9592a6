#include "tools/upgradectl/command_line.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace upgradectl {

namespace {

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  done\n"
    "  1  the machine or the device is not in order (room, permissions, partitions)\n"
    "  2  wrong command line\n"
    "  3  the package, what it is to be made of, or the installation was refused; nothing was flashed\n"
    "  4  flashing failed\n"
    "  5  given up in time; nothing was flashed\n"
    "  6  another process changes the device; nothing was done\n";

// What CLI11 says of a command line without a command does not name the word that was taken for one.
std::string wrongCommandLine(const CLI::App& command, const CLI::Error& error) {
    if (command.get_require_subcommand_min() == 0) {
        return error.what();
    }
    const std::vector<std::string> words = command.remaining();
    if (words.empty()) {
        return "a command is missing";
    }
    const bool isOption = words.front().rfind('-', 0) == 0;
    return "'" + words.front() + "' is no " + (isOption ? "option" : "command");
}

// In the form of every other failure.
std::string failureMessage(const CLI::App* app, const CLI::Error& error) {
    const CLI::App* command = app;
    std::string help = "upgradectl";
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().back();
        help += " " + command->get_name();
    }
    return "upgradectl: " + wrongCommandLine(*command, error) + "\n  next: " + help + " --help\n";
}

// CLI11 has exit codes of its own; help and version are no failures.
ExitCode reportParseResult(const CLI::App& app, const CLI::ParseError& result) {
    return app.exit(result) == 0 ? ExitCode::kOk : ExitCode::kUsage;
}

}  // namespace

std::optional<ExitCode> parseCommandLine(int argc, char** argv, Action& chosen) {
    CLI::App app;
    describeCommandLine(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& result) {
        return reportParseResult(app, result);
    }
    return std::nullopt;
}

void describeCommandLine(CLI::App& app, Action& chosen) {
    app.name("upgradectl");
    app.description("Makes upgrade packages and upgrades the device");
    app.set_version_flag("--version", "upgradectl " UPGRADECTL_VERSION);
    app.require_subcommand(1);
    app.footer(kExitCodes);
    app.failure_message(failureMessage);
    for (const auto add :
         {addPack, addInspect, addVerify, addInit, addCheck, addInstall, addStatus, addVersions, addWatch,
          addActivate, addDiscard, addConfirm, addRollback, addHistory, addTwin}) {
        add(app, chosen);
    }
}

}  // namespace upgradectl
