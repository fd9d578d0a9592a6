// The four versions that a package carries, and their text form.
#pragma once

#include <string>

#include "common/error.h"
#include "common/export.h"

namespace kavro::package {

// Each is 0 to kMaxVersion: the trailer has three digits for it.
struct Version {
    int hw = 0;   // of the hardware that it is for
    int mpu = 0;  // of the main processor's software
    int mcu = 0;  // of the microcontroller's application
    int bld = 0;  // of the boot loader
};
inline constexpr int kMaxVersion = 999;  // of each

// Reads "HW.MPU.MCU.BLD", as "1.105.8.3" or in the form that the device prints, "V01.105.008.003". The
// error of anything else is usage.
KAVRO_EXPORT Result<Version> parseVersion(const std::string& text);

// "V01.105.008.003".
KAVRO_EXPORT std::string formatVersion(const Version& version);

}  // namespace kavro::package
