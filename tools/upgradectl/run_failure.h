// What the failure of a run means, and what to do about it.
#pragma once

#include <string>

#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/run_watch.h"

namespace upgradectl {

// Both are for a run that failed or was given up. package: its path, as the user knows it.
Failure installFailure(const RunOutcome& outcome, const std::string& package);
Failure rollbackFailure(const RunOutcome& outcome);

}  // namespace upgradectl
