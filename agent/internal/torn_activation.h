// An activation that was cut off.
#pragma once

#include <string>
#include <vector>

namespace kavro::agent {

// Where the current package is while the two change places.
inline constexpr const char* kPackageAside = "/firmware/temp";

// Completes what is left of one whose switch was made. Returns what was done, a sentence without a full stop; empty when there
// is none, when a package still awaits its activation, or when the board does not tell. Throws Failure (other).
std::string completeTornActivation();

// Completes what was cut off, and lets the packages follow a fallback, so that what comes next begins from a device whose current
// package is that of what runs. Adds what was done to `done`, sentences without a full stop. Throws Failure (other).
void settle(std::vector<std::string>& done);

}  // namespace kavro::agent
