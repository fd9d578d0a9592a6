// What the failure of a run means, and what to do about it.
#pragma once

#include <string>

#include "tools/upgradectl/run_watch.h"
#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

// Both are for a run that failed or was given up. package: its path, as the user knows it.
ToolError installFailure(const RunOutcome& outcome, const std::string& package);
ToolError rollbackFailure(const RunOutcome& outcome);

}  // namespace upgradectl
