// How it is told that somebody else changes the device.
#pragma once

#include "common/error.h"
#include "upgrade/device_lock.h"

namespace kavro::agent {

// busy, with the holder by its process and command.
Error busyError(const UpgradeLockHolder& holder);

}  // namespace kavro::agent
