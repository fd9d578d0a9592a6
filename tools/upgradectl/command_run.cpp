// The command lines of install and rollback, which make a run.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/install.h"
#include "tools/upgradectl/interrupts.h"

namespace upgradectl {

namespace {

void addRunOptions(CLI::App& command, RunOptions& options) {
    CLI::Option* plain =
        command.add_flag("--plain", options.plain, "Print lines on a terminal, too, as into a file");
    command.add_flag("--json", options.json, "Print events, one JSON object a line")->excludes(plain);
    command
        .add_option(
            "--trusted-key", options.trustedKey,
            "Public key (PEM): refuse a package that is signed with another one, or damaged, before the "
            "run begins")
        ->type_name("FILE")
        ->check(isPath());
    command.add_option("--report", options.report, "Write a page (HTML) about the run, however it ends")
        ->type_name("FILE")
        ->check(isPath());
}

}  // namespace

void addInstall(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("install", "Install a package and show the run");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins; afterwards the run goes on.\n"
        "Does not need 'init' before it. A report in /tmp is lost at the restart: copy it away before.\n\n"
        "Example:\n"
        "  upgradectl install /firmware/recv.pkg\n"
        "  upgradectl install --trusted-key vendor.pem --report /tmp/report.html /firmware/recv.pkg\n");
    const auto package = std::make_shared<std::string>();
    const auto options = std::make_shared<RunOptions>();
    command->add_option("PACKAGE", *package, "Package file")->check(isPath())->required();
    addRunOptions(*command, *options);
    command->callback([package, options, &chosen] {
        chosen = [package, options] {
            const Interrupts interrupts;
            install(*package, *options, interrupts);
        };
    });
}

void addRollback(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("rollback", "Go back to the kept package and activate it");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins.\n\n"
        "Example:\n"
        "  upgradectl rollback\n");
    const auto options = std::make_shared<RunOptions>();
    addRunOptions(*command, *options);
    command->callback([options, &chosen] {
        chosen = [options] {
            const Interrupts interrupts;
            rollback(*options, interrupts);
        };
    });
}

}  // namespace upgradectl
