// What was done to the device, and what came of it: a file that outlives upgrades, a JSON object a line.
//
//     {"time":"2026-11-22T10:00:00Z","event":"install","outcome":"ok","release":"V01.105.008.003", ...}
//
// Lines are appended and flushed, so a line that was written before a power cut is there after it. One that was cut off in
// the middle is no line: whoever reads skips it, and whoever appends begins a new one. The file is bounded: when it
// exceeds kMostHistoryBytes its older half is dropped, in one replacement.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

inline constexpr const char* kHistoryFile = "/config/upgrade_history.jsonl";
inline constexpr std::size_t kMostHistoryBytes = 65536;

// One thing that was done or found out. Members that do not apply are empty, and left out of the file.
struct HistoryEntry {
    std::string time;       // UTC, as "2026-11-22T10:00:00Z"; of the append where it is empty
    std::string event;      // "install", "activate", "rollback", "discard", "confirm", "fallback", "repair"
    std::string outcome;    // "ok", or the name of an error code: "refused", "flash_failed"
    std::string release;    // what the device was to run or runs then: "V01.105.008.003"
    std::string before;     // what it ran when this began
    std::string package;    // path of the package
    std::string keyDigest;  // SHA-256 of the key that the package carries, lower-case hexadecimal digits
    std::string by;         // who did it: the command line of the process, and its user
    std::string text;       // for people: what failed, or what was repaired
};

// Appends an entry and brings it to storage. An error is: other, when the file cannot be written; the file then is as it
// was, or has one torn line more. Blocks for a flush. Several threads and processes may append at once.
KAVRO_EXPORT Result<void> appendHistory(const HistoryEntry& entry);

// The entries, oldest first; none when there is no file. Lines that are no entry are skipped. An error is: other, when the file is
// there and cannot be read.
KAVRO_EXPORT Result<std::vector<HistoryEntry>> readHistory();

// Whether the device fell back from this release after its trial, and has not run it to a confirmation since.
KAVRO_EXPORT bool hasFailedTrial(const std::vector<HistoryEntry>& history, const std::string& release);

}  // namespace kavro::agent
