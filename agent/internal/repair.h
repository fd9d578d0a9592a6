// A microcontroller that does not have the firmware that the running release brings.
#pragma once

#include <string>

namespace kavro::agent {

// Programs it from the kept package of the running release: when the board wants that, when the release that runs starts next,
// nothing awaits its activation, and the package is there and in order. Cut off anywhere, the next call programs it anew.
// Returns what was done, or why it could not be done, a sentence without a full stop; empty for nothing. Blocks for as long
// as the programming takes.
std::string bringMicrocontrollerBack();

}  // namespace kavro::agent
