// The command line of twin, whose work is done by the script of the same name: it gets the words as they were given.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "base/errno_text.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/exit_code.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

// Beside the tool in an install tree; a build tree has a script in the same place that leads to the sources.
fs::path twinScript() {
    if (const char* named = std::getenv("KAVRO_TWIN")) {
        return named;
    }
    return (fs::read_symlink("/proc/self/exe").parent_path() / UPGRADECTL_TWIN).lexically_normal();
}

// Not what was parsed: the command of 'twin run' may contain anything, and the parser takes words like '[a,b]' apart.
std::vector<std::string> wordsOfThisProcess() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

// Returns only by throwing: the script takes this process over, and its exit code is the process's.
void becomeTwin() {
    const fs::path script = twinScript();
    std::vector<std::string> words = wordsOfThisProcess();
    words.erase(words.begin(), std::find(words.begin(), words.end(), "twin"));
    if (words.empty()) {
        throw Failure(ErrorCode::kOther, "the command line cannot be read from /proc/self/cmdline",
                      "mount /proc");
    }
    std::vector<char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](std::string& word) { return word.data(); });
    arguments.push_back(nullptr);
    setenv("KAVRO_TWIN_NAME", "upgradectl twin", 1);
    execv(script.c_str(), arguments.data());
    throw Failure(ErrorCode::kOther,
                  "the twin's script '" + script.string() + "' cannot be started: " + kavro::reasonOf(errno),
                  "install the tools with the twin, or name its script in KAVRO_TWIN");
}

// The script wants its words in this order.
class UsageOfTwin : public CLI::Formatter {
  public:
    explicit UsageOfTwin(const char* arguments) : words(arguments) {}
    std::string make_usage(const CLI::App* /*app*/, std::string name) const override {
        return get_label("Usage") + ": " + name + " " + words + "\n";
    }

  private:
    const char* words;
};

// The parser checks the names of options and that nothing is missing: values and order are the script's to judge.
CLI::App* addCommand(CLI::App& twin, const char* name, const char* arguments, const char* description,
                     const char* example) {
    CLI::App* command = twin.add_subcommand(name, description);
    command->formatter(std::make_shared<UsageOfTwin>(arguments));
    command->footer("Example:\n  upgradectl twin " + std::string(example) + "\n");
    command->add_option("DIR", "Directory of the device")->required();
    return command;
}

CLI::Option* addValue(CLI::App* command, const char* name, const char* value,
                      const std::string& description) {
    return command->add_option(name, description)->type_name(value);
}

// May be given several times, with one value each.
void addValues(CLI::App* command, const char* name, const char* value, const std::string& description) {
    addValue(command, name, value, description)->expected(1)->take_all();
}

void addCreate(CLI::App& twin) {
    CLI::App* command = addCommand(twin, "create", "DIR [OPTIONS]", "Make a device that runs from slot a",
                                   "create camera --components components/ --mpu 105");
    addValue(command, "--hw", "NUMBER", "Version of the hardware (default: 1)");
    addValue(command, "--mpu", "NUMBER", "Version of the main processor's software (default: 104)");
    addValue(command, "--mcu", "NUMBER", "Version of the microcontroller's software (default: 7)");
    addValue(command, "--bld", "NUMBER", "Version of the boot loader (default: 2)");
    addValue(command, "--components", "DIR",
             "Fill the slot, the boot loader and the microcontroller from the files of a release");
    command->add_flag("--plain", "Directories and files instead of file systems and partitions");
    command->add_flag(
        "--block",
        "ext4 file systems and partitions that are block devices: the default where it is possible, "
        "as root on a host with loop devices");
}

void addRun(CLI::App& twin) {
    CLI::App* command = addCommand(twin, "run", "DIR [OPTIONS] -- COMMAND...",
                                   "Run a command on the device, whose microcontroller has power then",
                                   "run camera -- upgradectl init");
    addValues(command, "--env", "NAME=VALUE", "Set a variable of the environment");
    addValues(command, "--visible", "DIR", "Show a directory of the host read-only at its own path");
    addValues(command, "--tmpfs-size", "PATH=SIZE",
              "Put a small disk in the place of a directory of the device");
    addValues(command, "--mcu-fault", "FAULT", "Give the microcontroller a fault");
    command->add_flag("--no-mcu", "Leave the microcontroller without power");
    command->add_option("COMMAND", "The command and its arguments, behind a --")
        ->required()
        ->expected(1, -1)
        ->allow_extra_args();
}

void addShow(CLI::App& twin) {
    CLI::App* command =
        addCommand(twin, "show", "DIR [OPTIONS]",
                   "Show versions, slots, packages and the outcome of the last run", "show camera --digests");
    command->add_flag("--digests", "Show the SHA-256 of packages and partitions too");
}

void addCompare(CLI::App& twin) {
    CLI::App* command = addCommand(twin, "compare", "DIR PART COMPONENTS",
                                   "Fail unless the device holds what the files of a release say",
                                   "compare camera b components/");
    command->add_option("PART", "What to compare: a, b, bootloader or mcu")->required();
    command->add_option("COMPONENTS", "Directory of the release's files")->required();
}

}  // namespace

void addTwin(CLI::App& app, Action& chosen) {
    CLI::App* twin =
        app.add_subcommand("twin", "Try upgrades on an emulated device in a directory of this host");
    twin->footer(
        "Tools and libraries run on it unchanged. 'upgradectl twin help' says more on each command.\n"
        "The exit code of 'run' is that of its COMMAND.\n"
        "KAVRO_TWIN names another script, KAVRO_TWIN_PROGRAMS the directory of mcu-emulator.\n\n"
        "Exit codes:\n"
        "  0  done\n"
        "  1  not done, or the device holds something else\n"
        "  2  wrong command line\n\n"
        "Example:\n"
        "  upgradectl twin create camera\n"
        "  upgradectl twin run camera -- upgradectl init\n"
        "  upgradectl twin show camera\n");
    twin->require_subcommand(1);
    addCreate(*twin);
    addRun(*twin);
    addCommand(*twin, "boot", "DIR", "Start the device anew: its boot loader decides which slot runs",
               "boot camera");
    addShow(*twin);
    addCompare(*twin);
    addCommand(*twin, "reset", "DIR", "Make the device anew, as it was created", "reset camera");
    addCommand(*twin, "detach", "DIR",
               "Unmount a device of block devices from this host until it is needed again", "detach camera");
    addCommand(*twin, "remove", "DIR", "Delete the device", "remove camera");
    twin->add_subcommand("help", "Print what the script says of its commands");
    twin->callback([&chosen] { chosen = becomeTwin; });
}

}  // namespace upgradectl
