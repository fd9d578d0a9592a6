// One program at a time talks to the microcontroller: the lock that sees to it, for either kind of link.
#pragma once

#include <string>

#include "base/file_descriptor.h"

namespace kavro {

// Locks an open file against all others that do the same, waiting up to kLinkLockMs. False, with the reason, when
// another one keeps it. The lock ends when the descriptor is closed.
[[nodiscard]] bool lockLink(const FileDescriptor& file, const std::string& path, std::string& error);

}  // namespace kavro
