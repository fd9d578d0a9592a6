#include "tools/upgradectl/package_version.h"

#include <gtest/gtest.h>

#include "tools/upgradectl/tool_error.h"

namespace {

using upgradectl::formatVersion;
using upgradectl::parseVersion;

class RefusedVersion : public testing::TestWithParam<const char*> {};

TEST(PackageVersion, four_numbers_are_read_in_the_order_hw_mpu_mcu_bld) {
    const upgradectl::PackageVersion version = parseVersion("1.104.7.2");
    EXPECT_EQ(version.hw, 1);
    EXPECT_EQ(version.mpu, 104);
    EXPECT_EQ(version.mcu, 7);
    EXPECT_EQ(version.bld, 2);
}

TEST(PackageVersion, the_form_that_the_device_prints_is_read_back) {
    EXPECT_EQ(formatVersion(parseVersion("V01.104.007.002")), "V01.104.007.002");
}

TEST(PackageVersion, both_ends_of_the_range_are_accepted) {
    EXPECT_EQ(formatVersion(parseVersion("0.0.0.0")), "V00.000.000.000");
    EXPECT_EQ(formatVersion(parseVersion("999.999.999.999")), "V999.999.999.999");
}

TEST_P(RefusedVersion, is_a_usage_error) {
    try {
        parseVersion(GetParam());
        FAIL() << "accepted";
    } catch (const upgradectl::ToolError& error) {
        EXPECT_EQ(error.exitCode(), upgradectl::ExitCode::kUsage);
        EXPECT_EQ(error.what(), "'" + std::string(GetParam()) + "' is not a version");
    }
}

INSTANTIATE_TEST_SUITE_P(PackageVersion, RefusedVersion,
                         testing::Values("", "1", "1.2.3", "1.2.3.4.5", "1.2.3.1000", "1000.2.3.4",
                                         "-1.2.3.4", "1.2..4", "1.2.3.4 ", " 1.2.3.4", "1.2.x.4", "1.2.3.0x4",
                                         "1.2.3.+4", "99999999999999999999.1.1.1", "v1.2.3.4", "1.2.3.4\n"));

}  // namespace
