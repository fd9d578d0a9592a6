// On a device whose work area cannot be written.
#include <gtest/gtest.h>

#include "tests/tools/device_support.h"

namespace {

using namespace tool_test;

TEST(ReadOnlyRaw, an_installation_says_that_the_work_area_cannot_be_written_and_keeps_the_packages) {
    testsupport::TestPackage().writeTo(kPackage);
    testsupport::writeFile("/firmware/current.pkg", "the running software");
    const ProgramResult result = upgradectl({"install", kPackage});
    EXPECT_EQ(result.exitCode, 3) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, "'/raw' cannot be written: Read-only file system\n")) << result.err;
    EXPECT_TRUE(contains(result.err, "next: mount /raw where it can be written")) << result.err;
    EXPECT_EQ(testsupport::readFile("/firmware/current.pkg"), "the running software");
}

}  // namespace
