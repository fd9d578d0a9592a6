// Where the report of a run may be written.
#pragma once

#include <filesystem>
#include <vector>

namespace upgradectl {

// Throws Failure unless a file can be made there that neither a run removes nor anything on the device depends on:
// usage for a place that is taken, other for one that cannot be written. inputs: files that are read; empty paths are
// skipped.
void requirePlaceForReport(const std::filesystem::path& report,
                           const std::vector<std::filesystem::path>& inputs);

}  // namespace upgradectl
