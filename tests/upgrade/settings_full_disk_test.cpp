// Settings on a disk without room: no version or status file is left half-written, and with room the next
// write succeeds. /config is a small file system of its own here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "upgrade/upgrade_api.h"

namespace {

using testsupport::exists;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::readVersions;
using testsupport::versionOf;
using testsupport::writeFile;
using testsupport::writeVersions;

constexpr const char* kFiller = "/config/filler";
constexpr const char* kVersionFile = "/config/v.json";
constexpr const char* kCurrentFile = "/config/upgrade_config.json";
constexpr const char* kStatusFile = "/config/upgrade_last_runtime";

class FullDisk : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        testsupport::emptyDevice();
        fake::reset();
        struct statvfs storage {};
        ASSERT_EQ(statvfs("/config", &storage), 0);
        ASSERT_LE(storage.f_blocks * storage.f_frsize, 1U << 20) << "/config is no small file system";
    }

    // Leaves not one byte.
    static void fill() {
        std::ofstream file(kFiller, std::ios::binary | std::ios::app);
        const std::string block(512, 'f');
        while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
        struct statvfs storage {};
        ASSERT_EQ(statvfs("/config", &storage), 0);
        ASSERT_EQ(storage.f_bavail, 0U);
    }
    static void makeRoom() { std::filesystem::remove(kFiller); }
};

TEST_F(FullDisk, leaves_an_option_file_as_it_was) {
    const std::string before = R"({"v" : 1})";
    writeFile(kVersionFile, before);
    fill();
    const std::vector<std::string> names = namesIn("/config");
    const int32_t value = 5;
    EXPECT_LT(UPGRADE_COMM_write_config(kVersionFile, "v", CFG_DATA_TYPE_INT, &value), 0);
    EXPECT_EQ(readFile(kVersionFile), before);
    EXPECT_EQ(namesIn("/config"), names);
    EXPECT_TRUE(fake::nothingLogged());
    makeRoom();
    EXPECT_GT(UPGRADE_COMM_write_config(kVersionFile, "v", CFG_DATA_TYPE_INT, &value), 0);
}

TEST_F(FullDisk, creates_no_option_file) {
    fill();
    const int32_t value = 5;
    EXPECT_LT(UPGRADE_COMM_write_config(kVersionFile, "v", CFG_DATA_TYPE_INT, &value), 0);
    EXPECT_FALSE(exists(kVersionFile));
}

TEST_F(FullDisk, leaves_a_version_file_as_it_was) {
    writeVersions(kVersionFile, versionOf(1, 104, 7, 2));
    const std::string before = readFile(kVersionFile);
    fill();
    const std::vector<std::string> names = namesIn("/config");
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    EXPECT_EQ(UPGRADE_write_target_version(version, kVersionFile), -1);
    EXPECT_EQ(readFile(kVersionFile), before);
    EXPECT_EQ(namesIn("/config"), names);
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_version_ctrl", "UPGRADE_write_target_version",
                                  "write config 'hw_version' to file '/config/v.json' failed;\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
    makeRoom();
    EXPECT_EQ(UPGRADE_write_target_version(version, kVersionFile), 0);
    EXPECT_EQ(readVersions(kVersionFile).mpu, 105);
}

TEST_F(FullDisk, leaves_no_half_copied_version_file) {
    fill();
    const std::vector<std::string> names = namesIn("/config");
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    EXPECT_EQ(UPGRADE_write_target_version(version, kVersionFile), -1);
    EXPECT_EQ(namesIn("/config"), names);
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_version_ctrl", "UPGRADE_write_target_version",
                                  "config_path '/config/v.json' not exist!\n"));
    makeRoom();
    EXPECT_EQ(UPGRADE_write_target_version(version, kVersionFile), 0);
    EXPECT_EQ(readVersions(kVersionFile).mpu, 105);
}

TEST_F(FullDisk, keeps_the_outcome_that_was_recorded_before) {
    writeFile(kStatusFile, "upgrade_failure");
    fill();
    const std::vector<std::string> names = namesIn("/config");
    EXPECT_FALSE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_SUCCESS));
    EXPECT_EQ(readFile(kStatusFile), "upgrade_failure");
    EXPECT_EQ(namesIn("/config"), names);
    EXPECT_TRUE(fake::nothingLogged());
    makeRoom();
    EXPECT_TRUE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_SUCCESS));
    EXPECT_EQ(readFile(kStatusFile), "upgrade_success");
}

TEST_F(FullDisk, records_no_outcome_where_there_was_none) {
    fill();
    EXPECT_FALSE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_SUCCESS));
    EXPECT_FALSE(exists(kStatusFile));
}

TEST_F(FullDisk, leaves_a_whole_current_version_file_and_says_so) {
    writeVersions(kCurrentFile, versionOf(1, 104, 7, 2));
    const std::string before = readFile(kCurrentFile);
    UpgradeProc* const proc = UpgradeProc::getInstance();
    fake::log().clear();
    fill();
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    proc->tryUpdateVersion(version);
    EXPECT_EQ(readFile(kCurrentFile), before);  // there is no saved copy to restore
    EXPECT_TRUE(
        fake::loggedError("upgrade/upgrade_api", "tryUpdateVersion", "UPGRADE_write_target_version ERROR!"));
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_api", "tryCpFile",
                                  "cp /tmp/upgrade.cfg -> /config/upgrade_config.json fail\n", 92));
    EXPECT_TRUE(fake::logged(3, "tryUpdateVersion: update failed!\n"));
    makeRoom();
    proc->tryUpdateVersion(version);
    EXPECT_EQ(readVersions(kCurrentFile).mpu, 105);
}

TEST_F(FullDisk, gets_the_saved_copy_of_the_current_version_file_where_there_is_one) {
    writeVersions(kCurrentFile, versionOf(1, 104, 7, 2));
    writeVersions("/tmp/upgrade.cfg", versionOf(1, 100, 6, 1));
    UpgradeProc* const proc = UpgradeProc::getInstance();
    fake::log().clear();
    fill();
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    proc->tryUpdateVersion(version);
    const std::string after = readFile(kCurrentFile);
    const bool restored = after == readFile("/tmp/upgrade.cfg");
    EXPECT_EQ(restored, fake::log().has(3, "cp /tmp/upgrade.cfg -> /config/upgrade_config.json succ\n"))
        << fake::log();
    EXPECT_TRUE(restored || after == testsupport::versionJson(versionOf(1, 104, 7, 2))) << after;
    EXPECT_TRUE(fake::logged(3, "tryUpdateVersion: update failed!\n"));
}

}  // namespace
