// What history prints, for people and as JSON.
#pragma once

#include <string>
#include <vector>

#include "agent/history.h"

namespace upgradectl {

// A line for each entry, in columns; what stands in the entries is escaped. docs/upgradectl.md shows it.
std::string historyText(const std::vector<kavro::agent::HistoryEntry>& history);

// An object a line, as the history has them; nothing when there are none.
std::string historyJson(const std::vector<kavro::agent::HistoryEntry>& history);

}  // namespace upgradectl
