// Start-up: the factory package, the controller, the partitions and the version file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kUnit = "upgrade/upgrade_api";
constexpr const char* kFunction = "UPGRADE_init";
constexpr const char* kOriginArchive = "/etc/kavro/origin.pkg.tar.gz";
constexpr const char* kOriginSum = "/etc/kavro/origin_pkg_md5sum.txt";
constexpr const char* kUnpacked = "/firmware/origin.pkg";
constexpr const char* kOriginFound = "original package exist!\n";
constexpr const char* kMoved = "mv /firmware/origin.pkg -> /firmware/recv.tar.xz succ\n";
const std::string kContent = "the first package of the device";

class Init : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        fake::resetCommands();
    }
    // As the factory leaves it; the twin is at 1.104.7.2.
    static void placeOrigin(const std::string& checksum = testsupport::md5Text(kContent)) {
        testsupport::writeFile("/tmp/factory/origin.pkg", kContent);
        ASSERT_EQ(std::system("tar -czf /etc/kavro/origin.pkg.tar.gz -C /tmp/factory origin.pkg"), 0);
        testsupport::writeFile(kOriginSum, checksum);
    }
    int init() { return UPGRADE_init(fwDir); }
    static void expectVersions(int hw, int mpu, int mcu, int bld) {
        const L_VERSION_T version = testsupport::readVersions(UpgradeProc::currentCfg);
        EXPECT_EQ(version.hw, hw);
        EXPECT_EQ(version.mpu, mpu);
        EXPECT_EQ(version.mcu, mcu);
        EXPECT_EQ(version.bld, bld);
    }
    // The archive was there once; what it held was not taken over.
    void expectOriginDropped() {
        EXPECT_EQ(fwDir, "/firmware");
        EXPECT_FALSE(testsupport::exists(kOriginArchive));
        EXPECT_FALSE(testsupport::exists(UpgradeProc::recvPkg));
        EXPECT_TRUE(fake::logged(2, kOriginFound));
        EXPECT_FALSE(fake::log().contains("mv "));
        EXPECT_TRUE(fake::logged(3, "UPGRADE_init succ\n"));
        EXPECT_TRUE(testsupport::exists(UpgradeProc::currentCfg));
    }

    std::string fwDir = "untouched";
};

// --- a fresh device --------------------------------------------------------------------------

TEST_F(Init, of_a_fresh_device_succeeds_and_names_the_directory_for_packages) {
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(fwDir, "/firmware");
    EXPECT_TRUE(fake::loggedTimes(1, 3, "UPGRADE_init succ\n"));
    EXPECT_EQ(fake::log().lines().back().text, "UPGRADE_init succ\n");
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Init, of_a_fresh_device_copies_the_factory_versions) {
    testsupport::writeFile(
        UpgradeProc::defaultCfg,
        "{\"hw_version\":3,\"mpu_version\":1,\"mcu_version\":4,\"bld_version\":12,\"other\":\"kept\"}");
    EXPECT_EQ(init(), 0);
    expectVersions(3, 1, 4, 12);
    EXPECT_THAT(testsupport::readFile(UpgradeProc::currentCfg), testing::HasSubstr("kept"));
    EXPECT_THAT(fake::commands(), ElementsAre("cp /etc/kavro/version.json /config/upgrade_config.json"));
}

TEST_F(Init, of_a_fresh_device_holds_exactly_the_four_versions) {
    EXPECT_EQ(init(), 0);
    std::string text = testsupport::readFile(UpgradeProc::currentCfg);
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return std::isspace(c) != 0; }),
               text.end());
    EXPECT_EQ(text, R"({"bld_version":2,"hw_version":1,"mcu_version":7,"mpu_version":104})");
    EXPECT_TRUE(
        fake::logged(3, "UPGRADE_write_target_version /config/upgrade_config.json: version 1.104.7.2\n"));
}

TEST_F(Init, without_a_factory_package_says_nothing_of_one) {
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(fake::notLogged(2, kOriginFound));
    EXPECT_THAT(fake::commands(), Not(Contains(testing::StartsWith("tar"))));
    EXPECT_THAT(testsupport::namesIn("/firmware"), IsEmpty());
}

TEST_F(Init, creates_the_controller) {
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(fake::calls().count("mpu()"), 1U);
    EXPECT_TRUE(fake::logged(2, "&&&&& upgrade [stage IDLE], [result NONE] &&&&&\n"));
}

// --- versions --------------------------------------------------------------------------------

TEST_F(Init, takes_the_mcu_version_from_the_device) {
    fake::mcuVersion().returns(12);
    EXPECT_EQ(init(), 0);
    expectVersions(1, 104, 12, 2);
    EXPECT_TRUE(fake::logged(3, "updateMcuVersion: ver 12;\n"));
}

TEST_F(Init, keeps_the_recorded_mcu_version_when_the_device_does_not_tell) {
    testsupport::writeVersions(UpgradeProc::currentCfg, {9, 9, 5, 9});
    EXPECT_EQ(init(), 0);
    expectVersions(1, 104, 5, 2);
    EXPECT_THAT(fake::commands(), IsEmpty());
}

TEST_F(Init, goes_on_without_a_factory_version_file) {
    std::filesystem::remove(UpgradeProc::defaultCfg);
    EXPECT_EQ(init(), 0);
    EXPECT_FALSE(testsupport::exists(UpgradeProc::currentCfg));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "getCurrentVersion"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
    EXPECT_TRUE(fake::logged(3, "UPGRADE_init succ\n"));
}

TEST_F(Init, goes_on_when_the_versions_cannot_be_written) {
    std::filesystem::create_directory(UpgradeProc::currentCfg);
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(fake::logged(3, "UPGRADE_init succ\n"));
    EXPECT_TRUE(std::filesystem::is_directory(UpgradeProc::currentCfg));
}

// --- the factory package ---------------------------------------------------------------------

TEST_F(Init, takes_over_the_factory_package) {
    placeOrigin();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(testsupport::readFile(UpgradeProc::recvPkg), kContent);
    EXPECT_FALSE(testsupport::exists(kUnpacked));
    EXPECT_FALSE(testsupport::exists(kOriginArchive));
    EXPECT_TRUE(testsupport::exists(kOriginSum));
    EXPECT_EQ(fwDir, "/firmware");
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Init, tells_how_it_takes_over_the_factory_package) {
    placeOrigin();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(fake::log().lines().at(0).level, 2);
    EXPECT_EQ(fake::log().lines().at(0).text, kOriginFound);
    EXPECT_EQ(fake::log().lines().at(1).level, 3);
    EXPECT_EQ(fake::log().lines().at(1).text, kMoved);
    EXPECT_EQ(fake::commands().at(0), "tar -zxf /etc/kavro/origin.pkg.tar.gz -C /firmware");
}

TEST_F(Init, takes_over_a_package_whose_checksum_has_capital_digits) {
    std::string checksum = testsupport::md5Text(kContent);
    std::transform(checksum.begin(), checksum.end(), checksum.begin(),
                   [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
    placeOrigin(checksum);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(testsupport::readFile(UpgradeProc::recvPkg), kContent);
}

TEST_F(Init, replaces_a_package_received_before) {
    placeOrigin();
    testsupport::writeFile(UpgradeProc::recvPkg, "older and longer than the first package of the device");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(testsupport::readFile(UpgradeProc::recvPkg), kContent);
}

TEST_F(Init, takes_over_the_factory_package_once) {
    placeOrigin();
    EXPECT_EQ(init(), 0);
    std::filesystem::remove(UpgradeProc::recvPkg);
    fake::log().clear();
    fwDir.clear();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(fwDir, "/firmware");
    EXPECT_TRUE(fake::notLogged(2, kOriginFound));
    EXPECT_FALSE(fake::log().contains("origin"));
    EXPECT_FALSE(testsupport::exists(UpgradeProc::recvPkg));
    EXPECT_TRUE(fake::logged(3, "UPGRADE_init succ\n"));
}

TEST_F(Init, a_second_time_brings_the_versions_up_to_date_again) {
    EXPECT_EQ(init(), 0);
    fake::mcuVersion().returns(31);
    EXPECT_EQ(init(), 0);
    expectVersions(1, 104, 31, 2);
    EXPECT_EQ(fake::calls().count("mpu()"), 1U);
}

TEST_F(Init, a_checksum_with_a_line_break_leaves_the_package_where_it_was_unpacked) {
    placeOrigin(testsupport::md5Text(kContent) + "\n");
    EXPECT_EQ(init(), 0);
    expectOriginDropped();
    EXPECT_EQ(testsupport::readFile(kUnpacked), kContent);
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "oriMd5 file size 33 is not 32\n"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
}

TEST_F(Init, a_short_checksum_is_refused_with_its_length) {
    placeOrigin(testsupport::md5Text(kContent).substr(1));
    EXPECT_EQ(init(), 0);
    expectOriginDropped();
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "oriMd5 file size 31 is not 32\n"));
}

TEST_F(Init, a_missing_checksum_has_length_0) {
    placeOrigin();
    std::filesystem::remove(kOriginSum);
    EXPECT_EQ(init(), 0);
    expectOriginDropped();
    EXPECT_EQ(testsupport::readFile(kUnpacked), kContent);
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "oriMd5 file size 0 is not 32\n"));
}

TEST_F(Init, a_package_that_differs_from_its_checksum_stays_where_it_was_unpacked) {
    placeOrigin(testsupport::md5Text("something else"));
    EXPECT_EQ(init(), 0);
    expectOriginDropped();
    EXPECT_EQ(testsupport::readFile(kUnpacked), kContent);
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "md5 check failed\n"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
}

TEST_F(Init, a_damaged_archive_is_tried_once) {
    testsupport::writeFile(kOriginArchive, "no archive");
    testsupport::writeFile(kOriginSum, testsupport::md5Text(kContent));
    EXPECT_EQ(init(), 0);
    expectOriginDropped();
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "md5 check failed\n"));
}

TEST_F(Init, unpacking_is_judged_by_what_it_left) {
    placeOrigin();
    testsupport::writeFile(kUnpacked, kContent);
    fake::failCommands("tar");
    EXPECT_EQ(init(), 0);
    EXPECT_FALSE(testsupport::exists(kOriginArchive));
    EXPECT_EQ(testsupport::readFile(UpgradeProc::recvPkg), kContent);
}

TEST_F(Init, a_move_that_fails_is_logged_and_no_failure) {
    placeOrigin();
    testsupport::writeFile(UpgradeProc::recvPkg + "/in/the/way", "x");
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(
        fake::loggedError(kUnit, "tryMvFile", "mv /firmware/origin.pkg -> /firmware/recv.tar.xz fail\n"));
    EXPECT_TRUE(fake::notLogged(3, kMoved));
    EXPECT_EQ(testsupport::readFile(kUnpacked), kContent);
    EXPECT_FALSE(testsupport::exists(kOriginArchive));
    EXPECT_TRUE(fake::logged(3, "UPGRADE_init succ\n"));
    expectVersions(1, 104, 7, 2);
}

// --- a device whose drivers are not usable -----------------------------------------------------

TEST_F(Init, fails_at_once_without_a_usable_mcu_driver) {
    fake::mcu().init.returns(-1);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(fwDir, "untouched");
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "UpgradeProc::getInstance() failed!\n"));
    EXPECT_FALSE(fake::log().contains("UPGRADE_init succ"));
    EXPECT_FALSE(fake::log().contains("UPGRADE_init fail"));
    EXPECT_FALSE(testsupport::exists(UpgradeProc::currentCfg));
}

TEST_F(Init, fails_at_once_without_a_usable_mpu_driver) {
    fake::mpu().ready = false;
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(fwDir, "untouched");
    EXPECT_TRUE(fake::loggedError(kUnit, kFunction, "UpgradeProc::getInstance() failed!\n"));
    EXPECT_FALSE(testsupport::exists(UpgradeProc::currentCfg));
}

TEST_F(Init, takes_over_the_factory_package_though_the_drivers_are_not_usable) {
    placeOrigin();
    fake::mcu().init.returns(-1);
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(testsupport::readFile(UpgradeProc::recvPkg), kContent);
    EXPECT_FALSE(testsupport::exists(kOriginArchive));
}

TEST_F(Init, works_without_a_message_node) {
    fake::node().setNull(true);
    EXPECT_EQ(init(), 0);
    EXPECT_TRUE(fake::logged(2, "velNodeFd NULL!\n"));
}

// --- partitions and blocks ---------------------------------------------------------------------

TEST_F(Init, partitions_of_the_device_are_large_enough) {
    EXPECT_GE(UPGRADE_check_partitions(), 0);
}

TEST_F(Init, a_package_is_128_blocks_of_a_mebibyte) {
    long size = -1;
    long count = -1;
    EXPECT_EQ(UPGRADE_get_blk_info(&size, &count), 0);
    EXPECT_EQ(size, 1048576);
    EXPECT_EQ(count, 128);
    EXPECT_EQ(size * count, 134217728);
}

}  // namespace
