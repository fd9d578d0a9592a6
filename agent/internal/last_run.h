// The recorded outcome of the last run.
#pragma once

#include <string>

namespace kavro::agent {

// "upgrade_success" and so on, "none" without a record, empty for one that is damaged. The record stays: it is the application's
// to read, once.
std::string recordedOutcome();

bool isFailure(const std::string& outcome);

}  // namespace kavro::agent
