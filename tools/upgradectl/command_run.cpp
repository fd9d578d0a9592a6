// The command lines of install and rollback, which make a run.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/install.h"
#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/own_output.h"

namespace upgradectl {

void addInstall(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("install", "Install a package and show the run");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins; afterwards the run goes on.\n"
        "Does not need 'init' before it.\n\n"
        "Example:\n"
        "  upgradectl install /firmware/recv.pkg\n");
    const auto package = std::make_shared<std::string>();
    command->add_option("PACKAGE", *package, "Package file")->required();
    command->callback([package, &chosen] {
        chosen = [package] {
            const Interrupts interrupts;
            install(*package, OwnOutput(), interrupts);
        };
    });
}

void addRollback(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("rollback", "Go back to the kept package and activate it");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins.\n\n"
        "Example:\n"
        "  upgradectl rollback\n");
    command->callback([&chosen] {
        chosen = [] {
            const Interrupts interrupts;
            rollback(OwnOutput(), interrupts);
        };
    });
}

}  // namespace upgradectl
