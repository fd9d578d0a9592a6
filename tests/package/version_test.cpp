#include "package/version.h"

#include <gtest/gtest.h>

namespace {

using kavro::package::formatVersion;
using kavro::package::parseVersion;
using kavro::package::Version;

class RefusedVersion : public testing::TestWithParam<const char*> {};

TEST(PackageVersion, four_numbers_are_read_in_the_order_hw_mpu_mcu_bld) {
    const Version version = parseVersion("1.104.7.2").value();
    EXPECT_EQ(version.hw, 1);
    EXPECT_EQ(version.mpu, 104);
    EXPECT_EQ(version.mcu, 7);
    EXPECT_EQ(version.bld, 2);
}

TEST(PackageVersion, the_form_that_the_device_prints_is_read_back) {
    EXPECT_EQ(formatVersion(parseVersion("V01.104.007.002").value()), "V01.104.007.002");
}

TEST(PackageVersion, both_ends_of_the_range_are_accepted) {
    EXPECT_EQ(formatVersion(parseVersion("0.0.0.0").value()), "V00.000.000.000");
    EXPECT_EQ(formatVersion(parseVersion("999.999.999.999").value()), "V999.999.999.999");
}

TEST_P(RefusedVersion, is_a_usage_error) {
    const kavro::Result<Version> result = parseVersion(GetParam());
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, kavro::ErrorCode::kUsage);
    EXPECT_EQ(result.error().text, "'" + std::string(GetParam()) + "' is not a version");
}

INSTANTIATE_TEST_SUITE_P(PackageVersion, RefusedVersion,
                         testing::Values("", "1", "1.2.3", "1.2.3.4.5", "1.2.3.1000", "1000.2.3.4",
                                         "-1.2.3.4", "1.2..4", "1.2.3.4 ", " 1.2.3.4", "1.2.x.4", "1.2.3.0x4",
                                         "1.2.3.+4", "99999999999999999999.1.1.1", "v1.2.3.4", "1.2.3.4\n"));

}  // namespace
