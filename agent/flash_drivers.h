// Whether the device can be flashed at all, as far as its configuration tells.
#pragma once

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

// An error is: other, unless both processors' drivers are ready. Its details are what either of them lacks, where the log is
// kept (agent/device_log.h).
KAVRO_EXPORT Result<void> checkFlashDrivers();

}  // namespace kavro::agent
