// The device's log itself, where printLog writes to. A program that takes printLog's place gets what the libraries say; what a
// command prints is none of that, and goes here.
#pragma once

#include <string_view>

namespace kavro {

// Writes a line, without its line break, at a level of printLog. Several threads at once; blocks for the write. Needs a
// CancelHold around it.
void writeLog(int level, std::string_view text);

}  // namespace kavro
