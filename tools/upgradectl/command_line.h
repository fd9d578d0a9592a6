// The command line of upgradectl as one description, from which it is parsed and its manual pages are made.
#pragma once

#include <functional>
#include <optional>

#include "tools/upgradectl/exit_code.h"

namespace CLI {
class App;
}

namespace upgradectl {

// What a command line asks for. It outlives the parser. Throws Failure.
using Action = std::function<void()>;

// Sets chosen, unless the command line asks for nothing that is to be run: help, the version, or something wrong, which has
// been printed then. Returns how to exit in that case.
[[nodiscard]] std::optional<ExitCode> parseCommandLine(int argc, char** argv, Action& chosen);

// Enters all commands and options into app. Parsing sets chosen, which must outlive app, unless it fails.
void describeCommandLine(CLI::App& app, Action& chosen);

// One function for each command, in the file of its kind.
void addPack(CLI::App& app, Action& chosen);
void addInspect(CLI::App& app, Action& chosen);
void addVerify(CLI::App& app, Action& chosen);
void addInit(CLI::App& app, Action& chosen);
void addCheck(CLI::App& app, Action& chosen);
void addInstall(CLI::App& app, Action& chosen);
void addStatus(CLI::App& app, Action& chosen);
void addVersions(CLI::App& app, Action& chosen);
void addWatch(CLI::App& app, Action& chosen);
void addActivate(CLI::App& app, Action& chosen);
void addConfirm(CLI::App& app, Action& chosen);
void addDiscard(CLI::App& app, Action& chosen);
void addRollback(CLI::App& app, Action& chosen);
void addHistory(CLI::App& app, Action& chosen);
void addTwin(CLI::App& app, Action& chosen);

}  // namespace upgradectl
