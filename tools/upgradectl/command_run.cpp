// The command lines of install and rollback, which make a run, and of check, which looks whether one can be made.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/install.h"
#include "tools/upgradectl/install_check.h"
#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/own_output.h"

namespace upgradectl {

namespace {

void addForce(CLI::App& command, bool& force) {
    command.add_flag("--force", force,
                     "Go over a release that the device runs or has fallen back from, and over a trial that "
                     "is not confirmed");
}

void addTrustedKey(CLI::App& command, std::optional<std::filesystem::path>& key) {
    command
        .add_option(
            "--trusted-key", key,
            "Public key (PEM): refuse a package that is signed with another one, or damaged, before the "
            "run begins")
        ->type_name("FILE")
        ->check(isPath());
}

void addRunOptions(CLI::App& command, ShownRun& wanted) {
    CLI::Option* plain =
        command.add_flag("--plain", wanted.plain, "Print lines on a terminal, too, as into a file");
    command.add_flag("--json", wanted.json, "Print events, one JSON object a line")->excludes(plain);
    addTrustedKey(command, wanted.options.trustedKey);
    addWait(command, wanted.options.patience.longest);
    command.add_option("--report", wanted.report, "Write a page (HTML) about the run, however it ends")
        ->type_name("FILE")
        ->check(isPath());
}

}  // namespace

void addCheck(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("check", "Tell whether a package can be installed on this device");
    command->footer(
        "Looks at what 'install' looks at before it begins, at the package and at the device, and changes "
        "nothing.\n"
        "Tells everything that is in the way at once.\n\n"
        "Example:\n"
        "  upgradectl check --trusted-key vendor.pem /firmware/recv.pkg\n");
    const auto request = std::make_shared<CheckRequest>();
    command->add_option("PACKAGE", request->package, "Package file")->check(isPath())->required();
    addTrustedKey(*command, request->trustedKey);
    addForce(*command, request->force);
    command->add_flag("--json", request->json, "Print one JSON object");
    command->callback(
        [request, &chosen] { chosen = [request] { checkInstallation(OwnOutput(), *request); }; });
}

void addInstall(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("install", "Install a package and show the run");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins; afterwards the run goes on.\n"
        "Does not need 'init' before it. A report in /tmp is lost at the restart: copy it away before.\n\n"
        "Example:\n"
        "  upgradectl install /firmware/recv.pkg\n"
        "  upgradectl install --trusted-key vendor.pem --report /tmp/report.html /firmware/recv.pkg\n");
    const auto package = std::make_shared<std::string>();
    const auto wanted = std::make_shared<ShownRun>();
    command->add_option("PACKAGE", *package, "Package file")->check(isPath())->required();
    addForce(*command, wanted->options.force);
    addRunOptions(*command, *wanted);
    command->callback([package, wanted, &chosen] {
        chosen = [package, wanted] {
            const Interrupts interrupts;
            install(*package, *wanted, interrupts);
        };
    });
}

void addRollback(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("rollback", "Go back to the kept package and activate it");
    command->footer(
        "Ctrl-C asks to give up, which is possible until flashing begins.\n\n"
        "Example:\n"
        "  upgradectl rollback\n");
    const auto wanted = std::make_shared<ShownRun>();
    addRunOptions(*command, *wanted);
    command->callback([wanted, &chosen] {
        chosen = [wanted] {
            const Interrupts interrupts;
            rollback(*wanted, interrupts);
        };
    });
}

}  // namespace upgradectl
