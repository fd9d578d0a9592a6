// What was done to the device, and what came of it: a file that outlives upgrades, a JSON object a line.
//
//     {"event":"install","outcome":"ok","release":"V01.105.008.003","time":"2026-11-22T10:00:00Z", ...}
//
// Lines are appended and flushed, so a line that was written before a power cut is there after it. One that was cut off in
// the middle is no line: whoever reads skips it, and whoever appends begins a new one. The file is bounded: before it
// would exceed kMostHistoryBytes its older half is dropped, in one replacement.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

// Where it is kept.
inline constexpr const char* kHistoryFile = "/config/upgrade_history.jsonl";
// Of the file.
inline constexpr std::size_t kMostHistoryBytes = 65536;
inline constexpr std::size_t kMostHistoryTextBytes =
    1024;  // a longer text of an entry is cut, and ends with "..."

// One thing that was done or found out. Members that do not apply are empty, and left out of the file.
struct HistoryEntry {
    std::string time;       // UTC, as "2026-11-22T10:00:00Z"; of the append where it is empty
    std::string event;      // "install", "activate", "rollback", "discard", "confirm", "fallback", "repair"
    std::string outcome;    // "ok", or the name of an error code: "refused", "flash_failed"
    std::string release;    // what the device was to run or runs then: "V01.105.008.003"
    std::string before;     // what it ran when this began
    std::string package;    // path of the package
    std::string keyDigest;  // SHA-256 of the key that the package carries, lower-case hexadecimal digits
    std::string by;    // who did it: "root: upgradectl install camera.pkg"; of this process where it is empty
    std::string text;  // for people: what failed, or what was repaired
    std::vector<double> stageSeconds;  // of a run that succeeded: what its stages took, by UpgradeStage
};

// Appends an entry and brings it to storage; what is no UTF-8 in its texts becomes U+FFFD. Several threads and processes may
// append at once; a cancellation acts before or after it. Blocks for the flushes of all that append, ten seconds for a lock
// that another program has on the file. An error is: usage, when the entry has no event; other, when it is not sure to be on
// storage. The lines that were there stay whatever comes.
KAVRO_EXPORT Result<void> appendHistory(const HistoryEntry& entry);

// The entries, oldest first; none when there is no file. Lines that are no entry are skipped: those without an event, those
// in which a member above is no text, and what is no JSON object. Of a file that others have made longer than
// kMostHistoryBytes it reads so many bytes at the end. Waits for no lock. An error is: other, when the file is there and
// cannot be read.
KAVRO_EXPORT Result<std::vector<HistoryEntry>> readHistory();

// An entry as its line of the file, without the line break: JSON in ASCII. The members are called as above, but for
// keyDigest: "key_sha256", and stageSeconds: "stages". Throws std::bad_alloc only.
KAVRO_EXPORT std::string historyLine(const HistoryEntry& entry);

// Whether the device fell back from this release after its trial, and has not run it to a confirmation since: the last entry
// on it that is a "fallback" or a "confirm" with the outcome "ok" is a fallback.
KAVRO_EXPORT bool hasFailedTrial(const std::vector<HistoryEntry>& history, const std::string& release);

}  // namespace kavro::agent
