// Start-up of a device whose /firmware is far too small.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "upgrade/upgrade_api.h"

namespace {

constexpr const char* kUnit = "upgrade/upgrade_api";

class InitOnSmallDisk : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        ASSERT_LT(std::filesystem::space("/firmware").capacity, 335544320U);
    }
};

TEST_F(InitOnSmallDisk, fails_with_the_directory_for_packages_named) {
    std::string fwDir = "untouched";
    EXPECT_EQ(UPGRADE_init(fwDir), -1);
    EXPECT_EQ(fwDir, "/firmware");
}

TEST_F(InitOnSmallDisk, is_logged_as_a_failed_check_and_a_failed_start) {
    std::string fwDir;
    EXPECT_EQ(UPGRADE_init(fwDir), -1);
    EXPECT_TRUE(fake::loggedError(kUnit, "UPGRADE_init", "UPGRADE_check_partitions failed!\n"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
    EXPECT_EQ(fake::log().lines().back().level, 3);
    EXPECT_EQ(fake::log().lines().back().text, "UPGRADE_init fail\n");
}

TEST_F(InitOnSmallDisk, writes_no_versions) {
    std::string fwDir;
    EXPECT_EQ(UPGRADE_init(fwDir), -1);
    EXPECT_FALSE(testsupport::exists(UpgradeProc::currentCfg));
    EXPECT_EQ(fake::calls().count("mcuVersion()"), 0U);
}

TEST_F(InitOnSmallDisk, the_check_alone_fails_too) {
    EXPECT_LT(UPGRADE_check_partitions(), 0);
}

}  // namespace
