// A microcontroller that does not have the firmware that the running release brings.
#pragma once

#include <string>

#include "common/board.h"

namespace kavro::agent {

// Programs it from the kept package of the running release, when there is one and it is in order. Cut off anywhere, the next
// call programs it anew. Returns what was done, or why it could not be done, a sentence without a full stop; empty for
// nothing. content: what the running slot must hold. Blocks for as long as the programming takes.
std::string repairMicrocontroller(const COMMON_YR::BoardSlotContent& content);

}  // namespace kavro::agent
