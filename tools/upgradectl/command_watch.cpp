// The command line of watch.
#include <CLI/CLI.hpp>
#include <memory>

#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/watch.h"

namespace upgradectl {

void addWatch(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("watch", "Follow the runs of another process");
    command->footer(
        "Prints the changes of state that are published and the changes of stage that are logged from now "
        "on, until\n"
        "Ctrl-C.\n\n"
        "Example:\n"
        "  upgradectl watch --until-end\n");
    const auto request = std::make_shared<WatchRequest>();
    command->add_option("--address", request->address,
                        "Where the message node listens (default: as /etc/kavro/platform.json says)");
    command->add_option("--count", request->lines, "End after so many lines")
        ->type_name("NUMBER")
        ->check(isAtLeastOne());
    command->add_flag("--until-end", request->untilEnd,
                      "End with a run; the exit code is 4 when it failed, 1 when it ended before flashing");
    command->callback([request, &chosen] {
        chosen = [request] {
            const Interrupts interrupts;
            watch(*request, interrupts);
        };
    });
}

}  // namespace upgradectl
