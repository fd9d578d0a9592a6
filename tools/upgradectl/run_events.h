// A run as lines of JSON for a program that follows it: one object a line, the kind of event in its member "event".
// docs/upgradectl.md has the list; programs depend on the names.
#pragma once

#include <memory>

#include "agent/run.h"
#include "tools/upgradectl/own_output.h"

namespace upgradectl {

// output must outlive the view.
std::unique_ptr<kavro::agent::RunObserver> makeRunEvents(const OwnOutput& output);

}  // namespace upgradectl
