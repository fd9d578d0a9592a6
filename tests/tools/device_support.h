// What the tests of the tool share that run on an emulated device.
#pragma once

#include <string>

#include "tests/support/device.h"
#include "tests/support/test_package.h"
#include "tests/tools/tool_support.h"

namespace tool_test {

inline constexpr const char* kPackage = "/tmp/release.pkg";
inline constexpr const char* kMarker = "/config/upgraded";
inline constexpr const char* kLastRun = "/config/upgrade_last_runtime";

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Packs a release with the tool itself: version 1.105.8.3 on a device with 1.104.7.2.
inline void packRelease() {
    makeComponents("/tmp/components");
    makeEcKey("/tmp/key.pem");
    const ProgramResult result = upgradectl(
        {"pack", "-k", "/tmp/key.pem", "--version", "1.105.8.3", "-o", kPackage, "/tmp/components"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

}  // namespace tool_test
