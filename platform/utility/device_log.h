// The device's log itself, where printLog writes to.
#pragma once

#include <string_view>

namespace kavro {

// Writes what a command has printed, a line without its line break, at the level of information: where this process has
// used the log before. A program that has put a log of its own in printLog's place keeps ours closed. Several threads at
// once; blocks for the write. Needs a CancelHold around it.
void logOfCommand(std::string_view line);

}  // namespace kavro
