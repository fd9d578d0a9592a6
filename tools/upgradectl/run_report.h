// The page about a run that one attaches to a ticket.
#pragma once

#include <filesystem>
#include <string>

#include "agent/run.h"

namespace upgradectl {

using kavro::agent::RunRecord;

// One page of HTML that stands for itself: it needs no script and loads nothing. Valid UTF-8 and well-formed XML,
// whatever bytes the record holds; text of the record never acts as markup. Takes a few KiB, and about 150 bytes a
// logged line beyond its text.
std::string renderRunReport(const RunRecord& record);

// Writes the page whole or not at all; a file of that name is replaced. Throws Failure that names the file.
void writeRunReport(const std::filesystem::path& file, const RunRecord& record);

}  // namespace upgradectl
