// The four versions that a package carries, and their text form on the command line.
#pragma once

#include <string>

namespace upgradectl {

// Each is 0 to kMaxVersion: the trailer has three digits for it.
struct PackageVersion {
    int hw = 0;
    int mpu = 0;
    int mcu = 0;
    int bld = 0;
};
inline constexpr int kMaxVersion = 999;

// Reads "HW.MPU.MCU.BLD", as "1.105.8.3" or in the form that the device prints, "V01.105.008.003". Throws
// ToolError (usage) for anything else.
PackageVersion parseVersion(const std::string& text);

// "V01.105.008.003".
std::string formatVersion(const PackageVersion& version);

}  // namespace upgradectl
