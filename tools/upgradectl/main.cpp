// The command line of upgradectl. What the commands do stands in the files of their names.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/upgradectl/device_commands.h"
#include "tools/upgradectl/install.h"
#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/own_output.h"
#include "tools/upgradectl/pack.h"
#include "tools/upgradectl/package_version.h"
#include "tools/upgradectl/tool_error.h"
#include "tools/upgradectl/watch.h"

namespace {

using upgradectl::ExitCode;
using upgradectl::ToolError;

using Action = std::function<void()>;

constexpr const char* kExitCodes =
    "Exit codes:\n"
    "  0  done\n"
    "  1  the machine or the device is not in order (room, permissions, partitions)\n"
    "  2  wrong command line\n"
    "  3  the package, or what it is to be made of, was refused; nothing was flashed\n"
    "  4  flashing failed\n"
    "  5  given up in time; nothing was flashed\n";

void runPack(const upgradectl::PackRequest& request) {
    const upgradectl::Interrupts interrupts;
    const upgradectl::PackSummary summary = upgradectl::pack(request, interrupts);
    std::printf("package   %s\n", request.output.c_str());
    std::printf("version   %s\n", upgradectl::formatVersion(request.version).c_str());
    std::printf("payload   %u bytes, md5 %s\n", summary.payloadBytes, summary.md5.c_str());
    std::printf("signed    %s\n", summary.keyDescription.c_str());
}

void addPack(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("pack", "Make a signed upgrade package out of components");
    command->footer(
        "The directory holds bld_release.bin, cv22_kavro_qz7.dtb, ext4, Image, mcu_flash_app.s19,\n"
        "mcu_flash_drv.s19 and, if wanted, version_list.acs, which is made otherwise.\n"
        "SOURCE_DATE_EPOCH sets the times in the package.\n\n"
        "Example:\n"
        "  upgradectl pack --key signing.pem --version 1.105.8.3 --output camera.pkg components/\n");

    struct Options {
        upgradectl::PackRequest request;
        std::string version, stamp;
    };
    const auto options = std::make_shared<Options>();
    command->add_option("COMPONENT_DIR", options->request.componentDir, "Directory of the components")
        ->required();
    command->add_option("-o,--output", options->request.output, "Package to write")->required();
    command->add_option("-k,--key", options->request.key, "Private key (PEM, RSA or EC)")->required();
    command->add_option("--version", options->version, "Versions as HW.MPU.MCU.BLD, each 0 to 999")
        ->required();
    CLI::Option* stamp =
        command->add_option("--stamp", options->stamp, "Stamp, up to 14 bytes (default: UTC time)");
    command->add_option("--ident", options->request.ident, "Identifier, up to 40 bytes, such as a commit");
    command->add_option("--branch", options->request.branch, "Branch text; devices keep 127 bytes");
    command->add_option("--user", options->request.user, "User text, needs --branch; devices keep 127 bytes");

    command->callback([options, stamp, &chosen] {
        chosen = [options, stamp] {
            options->request.version = upgradectl::parseVersion(options->version);
            if (stamp->count() > 0) {
                options->request.stamp = options->stamp;
            }
            runPack(options->request);
        };
    });
}

void addInit(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("init", "Do what the device's application does after each start");
    command->footer(
        "Restores the factory package, where there is one, checks the partitions and writes the current "
        "versions.\n"
        "Prints the directory for packages.\n\n"
        "Example:\n"
        "  upgradectl init\n");
    command->callback([&chosen] { chosen = [] { upgradectl::initDevice(upgradectl::OwnOutput()); }; });
}

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
            const upgradectl::Interrupts interrupts;
            upgradectl::install(*package, upgradectl::OwnOutput(), interrupts);
        };
    });
}

void addStatus(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("status", "Tell versions, state, outcome of the last run and packages");
    command->footer(
        "The outcome of the last run stays recorded for the device's application, which reads it once.\n\n"
        "Example:\n"
        "  upgradectl status\n");
    const auto consume = std::make_shared<bool>(false);
    command->add_flag("--consume", *consume,
                      "Remove the record of the last run's outcome, as its reader does");
    command->callback([consume, &chosen] {
        chosen = [consume] { upgradectl::showStatus(upgradectl::OwnOutput(), *consume); };
    });
}

void addActivate(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("activate", "Make the installed software the one that starts next");
    command->footer(
        "Example:\n"
        "  upgradectl activate\n");
    command->callback([&chosen] { chosen = [] { upgradectl::activate(upgradectl::OwnOutput()); }; });
}

void addConfirm(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("confirm", "Tell that the running software is good");
    command->footer(
        "After an activation the boot loader starts the new software on trial, and goes back to the old one "
        "when it\n"
        "is not confirmed within a few starts. Harmless without a trial.\n\n"
        "Example:\n"
        "  upgradectl confirm\n");
    command->callback([&chosen] { chosen = [] { upgradectl::confirm(upgradectl::OwnOutput()); }; });
}

void addWatch(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("watch", "Follow the runs of another process");
    command->footer(
        "Prints the changes of state that are published and the changes of stage that are logged from now "
        "on, until\n"
        "Ctrl-C.\n\n"
        "Example:\n"
        "  upgradectl watch --until-end\n");
    const auto request = std::make_shared<upgradectl::WatchRequest>();
    command->add_option("--address", request->address,
                        "Where the message node listens (default: as /etc/kavro/platform.json says)");
    command->add_option("--count", request->lines, "End after so many lines")->check(CLI::PositiveNumber);
    command->add_flag("--until-end", request->untilEnd,
                      "End with a run; the exit code is 4 when it failed, 1 when it ended before flashing");
    command->callback([request, &chosen] {
        chosen = [request] {
            const upgradectl::Interrupts interrupts;
            upgradectl::watch(*request, interrupts);
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
            const upgradectl::Interrupts interrupts;
            upgradectl::rollback(upgradectl::OwnOutput(), interrupts);
        };
    });
}

void report(const ToolError& error) {
    std::fprintf(stderr, "upgradectl: %s\n", error.what());
    for (const std::string& line : error.details()) {
        std::fprintf(stderr, "  device: %s\n", line.c_str());
    }
    std::fprintf(stderr, "  next: %s\n", error.next().c_str());
}

// What CLI11 says of a command line without a command does not name the word that was taken for one.
std::string wrongCommandLine(const CLI::App& app, const CLI::Error& error) {
    if (!app.get_subcommands().empty()) {
        return error.what();
    }
    const std::vector<std::string> words = app.remaining();
    if (words.empty()) {
        return "a command is missing";
    }
    const bool isOption = words.front().rfind('-', 0) == 0;
    return "'" + words.front() + "' is no " + (isOption ? "option" : "command");
}

// In the form of every other failure.
std::string failureMessage(const CLI::App* app, const CLI::Error& error) {
    std::string help = "upgradectl";
    for (const CLI::App* command : app->get_subcommands()) {
        help = "upgradectl " + command->get_name();
    }
    return "upgradectl: " + wrongCommandLine(*app, error) + "\n  next: " + help + " --help\n";
}

// CLI11 has exit codes of its own; help and version are no failures.
ExitCode reportParseResult(const CLI::App& app, const CLI::ParseError& result) {
    return app.exit(result) == 0 ? ExitCode::kOk : ExitCode::kUsage;
}

ExitCode runCommandLine(int argc, char** argv) {
    CLI::App app("Makes upgrade packages and upgrades the device", "upgradectl");
    app.set_version_flag("--version", "upgradectl " UPGRADECTL_VERSION);
    app.require_subcommand(1);
    app.footer(kExitCodes);
    app.failure_message(failureMessage);
    Action chosen;
    for (const auto add :
         {addPack, addInit, addInstall, addStatus, addWatch, addActivate, addConfirm, addRollback}) {
        add(app, chosen);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& result) {
        return reportParseResult(app, result);
    }
    chosen();
    return ExitCode::kOk;
}

ExitCode runReporting(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const ToolError& error) {
        report(error);
        return error.exitCode();
    } catch (const std::exception& error) {
        report({ExitCode::kOther, error.what(), "check the memory and the storage of this machine"});
        return ExitCode::kOther;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return static_cast<int>(runReporting(argc, argv));
}
