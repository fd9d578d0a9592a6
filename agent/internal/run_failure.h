// What the failure of a run means, and what to do about it.
#pragma once

#include <string>

#include "agent/internal/run_watch.h"
#include "base/failure.h"

namespace kavro::agent {

// Both are for a run that failed or was given up. package: its path, as the user knows it.
Failure installFailure(const RunOutcome& outcome, const std::string& package);
Failure rollbackFailure(const RunOutcome& outcome);

}  // namespace kavro::agent
