#include "base/mcu_image.h"

#include <gtest/gtest.h>

#include "tests/platform/mcu/mcu_test_support.h"

namespace {

using testsupport::applicationOf;
using testsupport::Bytes;

TEST(McuImage, application_reports_the_version_of_its_header) {
    EXPECT_EQ(kavro::applicationVersion(applicationOf(0)), 0);
    EXPECT_EQ(kavro::applicationVersion(applicationOf(0x01020304)), 0x01020304);
    EXPECT_EQ(kavro::applicationVersion(applicationOf(0x7FFFFFFF)), 0x7FFFFFFF);
}

TEST(McuImage, version_that_is_no_positive_integer_is_none) {
    EXPECT_EQ(kavro::applicationVersion(applicationOf(0x80000000)), std::nullopt);
}

TEST(McuImage, every_changed_byte_of_the_magic_or_the_reserved_field_invalidates_the_header) {
    for (std::size_t index = 0; index < kavro::kMcuHeaderBytes; ++index) {
        auto application = applicationOf(7);
        application[0].bytes[index] ^= 1;
        const bool isVersion = index >= 8 && index < 12;
        EXPECT_EQ(kavro::applicationVersion(application).has_value(), isVersion) << index;
    }
}

TEST(McuImage, application_without_a_whole_header_at_its_start_has_no_version) {
    EXPECT_EQ(kavro::applicationVersion({}), std::nullopt);
    auto shortOne = applicationOf(7, 0);
    shortOne[0].bytes.pop_back();
    EXPECT_EQ(kavro::applicationVersion(shortOne), std::nullopt);
    auto shifted = applicationOf(7);
    shifted[0].address += 1;
    EXPECT_EQ(kavro::applicationVersion(shifted), std::nullopt);
}

TEST(McuImage, application_must_lie_in_its_flash) {
    std::string error;
    EXPECT_TRUE(kavro::checkApplication(applicationOf(7), error)) << error;
    EXPECT_TRUE(kavro::checkApplication(applicationOf(7, kavro::kMcuApplicationBytes - 16), error)) << error;
    EXPECT_FALSE(kavro::checkApplication(applicationOf(7, kavro::kMcuApplicationBytes - 15), error));
    EXPECT_EQ(error, "data at 0x00008000..0x00080000 is outside of 0x00008000..0x0007FFFF");
    auto withBootLoader = applicationOf(7);
    withBootLoader.insert(withBootLoader.begin(), {0x7FF0, Bytes(4, 1)});
    EXPECT_FALSE(kavro::checkApplication(withBootLoader, error));
    EXPECT_EQ(error, "data at 0x00007FF0..0x00007FF3 is outside of 0x00008000..0x0007FFFF");
}

TEST(McuImage, application_needs_data_and_a_header) {
    std::string error;
    EXPECT_FALSE(kavro::checkApplication({}, error));
    EXPECT_EQ(error, "holds no data");
    EXPECT_FALSE(kavro::checkApplication({{kavro::kMcuApplicationStart, Bytes(100, 0)}}, error));
    EXPECT_EQ(error, "no valid application header at 0x00008000");
}

TEST(McuImage, flash_driver_must_lie_in_ram) {
    std::string error;
    EXPECT_TRUE(kavro::checkFlashDriver({{0x20000000, Bytes(0x10000, 1)}}, error)) << error;
    EXPECT_FALSE(kavro::checkFlashDriver({{0x20000000, Bytes(0x10001, 1)}}, error));
    EXPECT_FALSE(kavro::checkFlashDriver({{0x1FFFFFFF, Bytes(2, 1)}}, error));
    EXPECT_FALSE(kavro::checkFlashDriver({}, error));
    EXPECT_EQ(error, "holds no data");
}

}  // namespace
