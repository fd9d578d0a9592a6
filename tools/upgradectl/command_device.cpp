// The command lines of the commands that ask the device, or switch it.
#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>

#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/device_commands.h"
#include "tools/upgradectl/device_status.h"
#include "tools/upgradectl/device_turn.h"
#include "tools/upgradectl/own_output.h"

namespace upgradectl {

namespace {

// The command does work when it is its turn to change the device.
void addInTurn(CLI::App& command, Action& chosen, const Action& work) {
    const auto patience = std::make_shared<std::chrono::milliseconds>(0);
    addWait(command, *patience);
    command.callback(
        [patience, work, &chosen] { chosen = [patience, work] { withDevice(*patience, work); }; });
}

}  // namespace

void addInit(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("init", "Make the device ready after a start");
    command->footer(
        "Completes what a power cut has torn apart, programs a microcontroller that has not the firmware of "
        "the running\n"
        "software, restores the factory package, where there is one, checks the partitions and writes the "
        "current versions.\n"
        "To be run once, before the device's application.\n"
        "Prints the directory for packages.\n\n"
        "Example:\n"
        "  upgradectl init\n");
    addInTurn(*command, chosen, [] { initDevice(OwnOutput()); });
}

void addStatus(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("status", "Tell versions, state, outcome of the last run and packages");
    command->footer(
        "The outcome of the last run stays recorded for the device's application, which reads it once. A "
        "part "
        "of the\n"
        "current version that is -- is unfinished: a failed upgrade has left it so.\n\n"
        "Example:\n"
        "  upgradectl status\n");
    const auto consume = std::make_shared<bool>(false);
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--consume", *consume,
                      "Remove the record of the last run's outcome, as its reader does");
    command->add_flag("--json", *json, "Print a JSON object");
    command->callback(
        [consume, json, &chosen] { chosen = [consume, json] { showStatus(OwnOutput(), *consume, *json); }; });
}

void addVersions(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand(
        "versions", "Tell the versions of the running software, of what is flashed and of kept packages");
    command->footer(
        "A version is that of hardware, main processor, microcontroller and boot loader. The factory version "
        "is that\n"
        "of the version file of the running software. A part of the current version that is -- is "
        "unfinished: a failed\n"
        "upgrade has left it so. The microcontroller is asked itself, beside that.\n\n"
        "Example:\n"
        "  upgradectl versions\n");
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print a JSON object");
    command->callback([json, &chosen] { chosen = [json] { showVersions(OwnOutput(), *json); }; });
}

void addActivate(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("activate", "Make the installed software the one that starts next");
    command->footer(
        "Example:\n"
        "  upgradectl activate\n");
    addInTurn(*command, chosen, [] { activate(OwnOutput()); });
}

void addDiscard(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("discard", "Drop the installed package that awaits its activation");
    command->footer(
        "The device goes on with the software that runs. The microcontroller is programmed with the firmware "
        "of that\n"
        "again, where its package is kept. The boot loader stays as it was installed.\n\n"
        "Example:\n"
        "  upgradectl discard\n");
    addInTurn(*command, chosen, [] { discard(OwnOutput()); });
}

void addConfirm(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("confirm", "Tell that the running software is good");
    command->footer(
        "After an activation the boot loader starts the new software on trial, and goes back to the old one "
        "when it\n"
        "is not confirmed within a few starts. Harmless without a trial.\n\n"
        "Example:\n"
        "  upgradectl confirm\n");
    addInTurn(*command, chosen, [] { confirm(OwnOutput()); });
}

}  // namespace upgradectl
