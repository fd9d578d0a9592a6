// The tool on a device whose package directory is far too small.
#include <gtest/gtest.h>

#include "tests/tools/device_support.h"

namespace {

using namespace tool_test;

TEST(SmallDisk, init_fails_and_says_how_large_the_file_systems_must_be) {
    const ProgramResult result = upgradectl({"init"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "/firmware or at /raw is missing or too small")) << result.err;
    EXPECT_TRUE(contains(result.err, "next: mount them: /firmware needs 320 MiB")) << result.err;
}

TEST(SmallDisk, a_package_that_cannot_be_copied_is_not_blamed) {
    packRelease();
    const ProgramResult result = upgradectl({"install", kPackage});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, "could not be copied to /firmware")) << result.err;
    EXPECT_TRUE(contains(result.err, "device: cp /tmp/release.pkg -> /firmware/upgrade.pkg fail"))
        << result.err;
}

}  // namespace
