// Whether the device may be changed at all, by this user and now.
#pragma once

#include <optional>
#include <vector>

#include "agent/preflight.h"

namespace kavro::agent {

inline constexpr const char* kBusyName = "busy";

// not_root
std::optional<Obstacle> ownerObstacle();
// busy
std::optional<Obstacle> busyObstacle();
// not_writable: one for each directory
std::vector<Obstacle> writableObstacles();

// Throws Failure (other) for who does not own the device.
void requireOwner();

}  // namespace kavro::agent
