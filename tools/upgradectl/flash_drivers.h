// Whether the device can be flashed at all, as far as its configuration tells.
#pragma once

namespace upgradectl {

// Throws Failure unless both processors' drivers are ready. Its device: lines say what either of them lacks.
void requireFlashDrivers();

}  // namespace upgradectl
