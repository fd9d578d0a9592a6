// A text file that grows by a line at a time: threads and processes may append at once, a line that was appended outlives a
// power cut, and the oldest lines go before it becomes too long.
//
// A line that was cut off in the middle stays the last one of its file until the next append ends it, so that no later line
// continues it. All needs a CancelHold around it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kavro::agent {

// Appends a line, which holds no line break and fewer than mostBytes, and brings it to storage. Where the file would exceed
// mostBytes it drops the older half of its lines, as often as needed, by replacing the file. Throws Failure (other); the
// lines are those from before then, or the new one is there too.
void appendLine(const std::string& path, const std::string& line, std::size_t mostBytes);

// The lines of a file, the oldest first, and one that was cut off behind them; of a file that is longer than mostBytes
// those that begin in so many bytes at its end. None when there is no file. Throws Failure (other).
std::vector<std::string> readLines(const std::string& path, std::size_t mostBytes);

}  // namespace kavro::agent
