// What a user, or a program, sees of a run while it goes on.
#pragma once

#include <memory>
#include <string>

#include "agent/run.h"
#include "tools/upgradectl/own_output.h"

namespace upgradectl {

// A line on a terminal that is drawn again and again; lines of text; lines of JSON.
enum class OutputForm { kTerminal, kPlain, kJson };

using kavro::agent::RunBegin;
using kavro::agent::RunRecord;
using kavro::agent::RunStatus;

// One line of a status for a terminal of that many columns; it never wraps. What has no room is left out: first the
// bar, then the time that has passed, the time that is left, and the stage.
std::string terminalLine(const RunStatus& status, int columns);
// One line of a status for a log.
std::string plainLine(const RunStatus& status);

// output must outlive the view. Everything is written at once.
std::unique_ptr<kavro::agent::RunObserver> makeRunView(const OwnOutput& output, OutputForm form);

}  // namespace upgradectl
