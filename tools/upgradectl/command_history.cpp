// The command line of history, which tells what was done to the device.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "agent/history.h"
#include "base/failure.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/history_view.h"

namespace upgradectl {

void addHistory(CLI::App& app, Action& chosen) {
    CLI::App* command =
        app.add_subcommand("history", "Tell what was done to the device, and what came of it");
    command->footer(
        "A line for each installation, activation, way back and repair, the newest last: time (UTC), event, "
        "outcome, the\n"
        "release that ran and the one that was to run, what was to be said, package, and who did it. The "
        "history outlives\n"
        "upgrades; of a long one the oldest lines are dropped.\n\n"
        "Example:\n"
        "  upgradectl history\n");
    const auto json = std::make_shared<bool>(false);
    command->add_flag("--json", *json, "Print one JSON object a line");
    command->callback([json, &chosen] {
        chosen = [json] {
            const auto history = kavro::valueOf(kavro::agent::readHistory());
            std::fputs((*json ? historyJson(history) : historyText(history)).c_str(), stdout);
        };
    });
}

}  // namespace upgradectl
