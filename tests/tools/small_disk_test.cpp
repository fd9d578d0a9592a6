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

TEST(SmallDisk, a_package_that_has_no_room_is_not_blamed) {
    packRelease();
    const ProgramResult result = upgradectl({"install", kPackage});
    EXPECT_EQ(result.exitCode, 3) << result.out << result.err;
    EXPECT_EQ(result.err.rfind("upgradectl: the file system at /firmware has room for 65536 bytes", 0), 0U)
        << result.err;
    EXPECT_FALSE(testsupport::exists(kLastRun));
}

}  // namespace
