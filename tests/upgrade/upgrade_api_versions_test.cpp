// The controller's version records: the current version file around a flash, the versions that the device
// runs, and the version strings for the application.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "upgrade/upgrade_api.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::exists;
using testsupport::readFile;
using testsupport::readVersions;
using testsupport::versionOf;
using testsupport::writeFile;
using testsupport::writeVersions;

constexpr const char* kUnit = "upgrade/upgrade_api";
constexpr const char* kFactoryFile = "/etc/kavro/version.json";
constexpr const char* kCurrentFile = "/config/upgrade_config.json";
constexpr const char* kSavedFile = "/tmp/upgrade.cfg";
constexpr const char* kWritten = "UPGRADE_write_target_version /config/upgrade_config.json: version ";

const L_VERSION_T kFactory = versionOf(1, 104, 7, 2);

class Versions : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        testsupport::emptyDevice();
        writeVersions(kFactoryFile, kFactory);
        fake::reset();
        fake::resetCommands();
        proc = UpgradeProc::getInstance();
        fake::log().clear();
        fake::calls().clear();
    }

    // What getCurrentVersion finds, as the string made of it.
    static std::string currentText() {
        std::string text = "untouched";
        const int result = UPGRADE_get_cur_ver_str(text);
        EXPECT_EQ(result, text == "untouched" ? -1 : 0);
        return text;
    }

    static void expectCurrentFileNotRewritten(const std::string& before) {
        EXPECT_EQ(readFile(kCurrentFile), before);
        EXPECT_FALSE(fake::log().contains(kWritten)) << fake::log();
    }

    UpgradeProc* proc = nullptr;
};

using CurrentVersion = Versions;
using TryUpdateVersion = Versions;
using VersionString = Versions;

TEST(VersionPaths, are_fixed) {
    EXPECT_EQ(UpgradeProc::defaultCfg, kFactoryFile);
    EXPECT_EQ(UpgradeProc::currentCfg, kCurrentFile);
    EXPECT_EQ(UpgradeProc::rollbackCfg, "/config/rollback_config.json");
    EXPECT_EQ(UpgradeProc::tmpCfg, kSavedFile);
}

// ---------------------------------------------------------------------------------------------------------------------
// The versions that the device runs
// ---------------------------------------------------------------------------------------------------------------------

TEST_F(CurrentVersion, takes_only_the_microcontroller_from_the_current_file) {
    writeVersions(kCurrentFile, versionOf(9, 99, 8, 99));
    EXPECT_EQ(currentText(), "V01.104.008.002");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(CurrentVersion, without_a_current_file_is_the_factory_version) {
    EXPECT_EQ(currentText(), "V01.104.007.002");
    EXPECT_TRUE(fake::loggedTimes(1, 3, "config_path '/config/upgrade_config.json' not exist!\n"));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(CurrentVersion, does_not_take_the_microcontroller_from_a_file_that_cannot_be_read_whole) {
    writeFile(kCurrentFile, R"({"hw_version" : 1, "mpu_version" : 104, "mcu_version" : 8})");
    EXPECT_EQ(currentText(), "V01.104.007.002");
}

TEST_F(CurrentVersion, marks_an_unfinished_flash_of_the_microcontroller_when_it_does_not_answer) {
    writeVersions(kCurrentFile, versionOf(1, 104, -1, 2));
    EXPECT_EQ(currentText(), "V01.104.-01.002");
}

TEST_F(CurrentVersion, is_what_the_microcontroller_reports) {
    writeVersions(kCurrentFile, versionOf(1, 104, 8, 2));
    fake::mcuVersion().returns(9);
    EXPECT_EQ(currentText(), "V01.104.009.002");
    EXPECT_TRUE(fake::loggedTimes(1, 3, "updateMcuVersion: ver 9;\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
    EXPECT_THAT(fake::calls().texts(), ElementsAre("mcuVersion()"));
}

TEST_F(CurrentVersion, a_reported_0_is_a_version) {
    fake::mcuVersion().returns(0);
    EXPECT_EQ(currentText(), "V01.104.000.002");
    EXPECT_TRUE(fake::logged(3, "updateMcuVersion: ver 0;\n"));
    fake::mcuVersion().returns(-1);
    EXPECT_EQ(currentText(), "V01.104.000.002");
}

TEST_F(CurrentVersion, keeps_the_last_report_while_the_microcontroller_does_not_answer) {
    writeVersions(kCurrentFile, versionOf(1, 104, 6, 2));
    fake::mcuVersion().returns(-5);
    EXPECT_EQ(currentText(), "V01.104.006.002");
    EXPECT_FALSE(fake::log().contains("updateMcuVersion"));
    fake::mcuVersion().returns(8);
    EXPECT_EQ(currentText(), "V01.104.008.002");
    fake::mcuVersion().returns(-5);
    EXPECT_EQ(currentText(), "V01.104.008.002");
    EXPECT_TRUE(fake::loggedTimes(1, 3, "updateMcuVersion: ver 8;\n"));
    fake::mcuVersion().returns(3);
    EXPECT_EQ(currentText(), "V01.104.003.002");
}

TEST_F(CurrentVersion, is_not_known_without_a_factory_file) {
    std::filesystem::remove(kFactoryFile);
    writeVersions(kCurrentFile, versionOf(1, 104, 8, 2));
    EXPECT_EQ(currentText(), "untouched");
    EXPECT_TRUE(fake::logged(3, "config_path '/etc/kavro/version.json' not exist!\n"));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "getCurrentVersion"));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "UPGRADE_get_cur_ver_str"));
    EXPECT_EQ(fake::log().lines().size(), 3U) << fake::log();
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
}

TEST_F(CurrentVersion, is_not_known_with_a_damaged_factory_file) {
    writeFile(kFactoryFile, R"({"hw_version" : 1, "mpu_version" : "x"})");
    EXPECT_EQ(currentText(), "untouched");
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_version_ctrl", "UPGRADE_read_target_version",
                                  "read config 'mpu_version' from file '/etc/kavro/version.json' failed;\n"));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "getCurrentVersion"));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "UPGRADE_get_cur_ver_str"));
}

// ---------------------------------------------------------------------------------------------------------------------
// tryUpdateVersion
// ---------------------------------------------------------------------------------------------------------------------

TEST_F(TryUpdateVersion, writes_nothing_when_only_the_hardware_differs) {
    const std::string before = R"({"hw_version":1,"mpu_version":104,"mcu_version":7,"bld_version":2})";
    writeFile(kCurrentFile, before);
    L_VERSION_T version = versionOf(5, 104, 7, 2);
    proc->tryUpdateVersion(version);
    expectCurrentFileNotRewritten(before);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(TryUpdateVersion, writes_all_four_when_one_of_the_others_differs) {
    for (const L_VERSION_T& wanted :
         {versionOf(5, 105, 7, 2), versionOf(5, 104, 8, 2), versionOf(5, 104, 7, 3)}) {
        fake::log().clear();
        writeVersions(kCurrentFile, kFactory);
        L_VERSION_T version = wanted;
        proc->tryUpdateVersion(version);
        EXPECT_EQ(readVersions(kCurrentFile), wanted);
        EXPECT_EQ(version, wanted);
        EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
        EXPECT_TRUE(fake::log().contains(kWritten)) << fake::log();
    }
}

TEST_F(TryUpdateVersion, makes_a_missing_file_from_the_factory_file) {
    L_VERSION_T version = kFactory;
    proc->tryUpdateVersion(version);
    EXPECT_EQ(readVersions(kCurrentFile), kFactory);
    EXPECT_THAT(fake::commands(), ElementsAre("cp /etc/kavro/version.json /config/upgrade_config.json"));
    EXPECT_TRUE(fake::logged(3, "config_path '/config/upgrade_config.json' not exist!\n"));
    EXPECT_TRUE(fake::logged(3, std::string(kWritten) + "1.104.7.2\n"));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

// Whatever a failed read leaves behind must not look like the version that is to be written.
TEST_F(TryUpdateVersion, writes_whatever_the_version_when_the_file_cannot_be_read) {
    const std::vector<std::string> documents{
        "", "{}", "[]", R"({"hw_version" : 0, "mpu_version" : 0, "mcu_version" : 0})",
        R"({"hw_version" : -1, "mpu_version" : -1, "bld_version" : -1})"};
    for (const std::string& document : documents) {
        for (const int value : {0, -1, -99999998}) {
            SCOPED_TRACE(document + " " + std::to_string(value));
            writeFile(kCurrentFile, document);
            L_VERSION_T version = versionOf(value, value, value, value);
            proc->tryUpdateVersion(version);
            EXPECT_EQ(readVersions(kCurrentFile), version);
        }
    }
}

TEST_F(TryUpdateVersion, restores_the_saved_copy_when_it_cannot_write) {
    std::filesystem::remove(kFactoryFile);  // so that the missing file cannot be made
    writeVersions(kSavedFile, versionOf(1, 100, 6, 1));
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    proc->tryUpdateVersion(version);
    EXPECT_EQ(readFile(kCurrentFile), readFile(kSavedFile));
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_version_ctrl", "UPGRADE_write_target_version",
                                  "config_path '/config/upgrade_config.json' not exist!\n"));
    EXPECT_TRUE(fake::loggedError(kUnit, "tryUpdateVersion", "UPGRADE_write_target_version ERROR!"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "cp /tmp/upgrade.cfg -> /config/upgrade_config.json succ\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "tryUpdateVersion: update failed!\n"));
    const std::vector<fake::LogLine> lines = fake::log().lines();
    ASSERT_EQ(lines.size(), 5U) << fake::log();
    EXPECT_EQ(lines.back().text, "tryUpdateVersion: update failed!\n");
}

TEST_F(TryUpdateVersion, says_so_when_there_is_no_saved_copy_either) {
    std::filesystem::remove(kFactoryFile);
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    proc->tryUpdateVersion(version);
    EXPECT_FALSE(exists(kCurrentFile));
    EXPECT_TRUE(fake::loggedError(kUnit, "tryUpdateVersion", "UPGRADE_write_target_version ERROR!"));
    EXPECT_TRUE(fake::loggedError(kUnit, "tryCpFile",
                                  "cp /tmp/upgrade.cfg -> /config/upgrade_config.json fail\n", 92));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "tryUpdateVersion: update failed!\n"));
}

TEST_F(TryUpdateVersion, never_writes_the_saved_copy_or_the_rollback_file) {
    L_VERSION_T version = versionOf(1, 105, 8, 3);
    proc->tryUpdateVersion(version);
    EXPECT_FALSE(exists(kSavedFile));
    EXPECT_FALSE(exists("/config/rollback_config.json"));
    EXPECT_EQ(readVersions(kFactoryFile), kFactory);
}

// ---------------------------------------------------------------------------------------------------------------------
// Around a flash
// ---------------------------------------------------------------------------------------------------------------------

class VersionsAroundFlash : public Versions {
  protected:
    void SetUp() override {
        Versions::SetUp();
        proc->currentVersion = versionOf(1, 104, 7, 2);
        proc->targetVersion = versionOf(9, 105, 8, 3);
        writeVersions(kCurrentFile, versionOf(0, 0, 0, 0));
    }
};

TEST_F(VersionsAroundFlash, update_takes_over_what_was_flashed) {
    const auto after = [&](bool mpu, bool mcu) {
        proc->updateVersion(mpu, mcu);
        return readVersions(kCurrentFile);
    };
    EXPECT_EQ(after(false, false), versionOf(1, 104, 7, 2));
    EXPECT_EQ(after(false, true), versionOf(1, 104, 8, 2));
    EXPECT_EQ(after(true, false), versionOf(1, 105, 7, 3));  // the bootloader travels with the main processor
    EXPECT_EQ(after(true, true), versionOf(1, 105, 8, 3));
}

TEST_F(VersionsAroundFlash, clear_marks_what_is_about_to_be_flashed) {
    const auto after = [&](bool mpu, bool mcu) {
        proc->clearVersion(mpu, mcu);
        return readVersions(kCurrentFile);
    };
    EXPECT_EQ(after(false, false), versionOf(1, 104, 7, 2));
    EXPECT_EQ(after(false, true), versionOf(1, 104, -1, 2));
    EXPECT_EQ(after(true, false), versionOf(1, -1, 7, 2));
    EXPECT_EQ(after(true, true), versionOf(1, -1, -1, 2));
}

TEST_F(VersionsAroundFlash, neither_changes_the_records_of_the_controller) {
    proc->clearVersion(true, true);
    proc->updateVersion(true, true);
    proc->preUpgradeMcu();
    proc->postUpgradeMcu(true);
    EXPECT_EQ(proc->currentVersion, versionOf(1, 104, 7, 2));
    EXPECT_EQ(proc->targetVersion, versionOf(9, 105, 8, 3));
}

TEST_F(VersionsAroundFlash, a_successful_flash_of_the_microcontroller_ends_with_the_package_version) {
    proc->preUpgradeMcu();
    EXPECT_EQ(readVersions(kCurrentFile), versionOf(1, 104, -1, 2));
    proc->postUpgradeMcu(true);
    EXPECT_EQ(readVersions(kCurrentFile), versionOf(1, 104, 8, 2));
}

TEST_F(VersionsAroundFlash, a_failed_flash_of_the_microcontroller_leaves_the_mark) {
    proc->preUpgradeMcu();
    const std::string marked = readFile(kCurrentFile);
    fake::log().clear();
    proc->postUpgradeMcu(false);
    expectCurrentFileNotRewritten(marked);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(VersionsAroundFlash, after_a_failed_flash_any_package_differs) {
    proc->preUpgradeMcu();
    proc->postUpgradeMcu(false);
    L_VERSION_T current{};
    ASSERT_EQ(UPGRADE_read_target_version(current, kCurrentFile), 0);
    UPGRADE_FLAG_T flag{};
    UPGRADE_set_upgrade_flag(flag, current, versionOf(1, 104, 7, 2), false);
    EXPECT_TRUE(flag.mcu);
}

TEST_F(VersionsAroundFlash, the_hooks_of_the_main_processor_change_nothing) {
    const std::string before = readFile(kCurrentFile);
    proc->preUpgradeMpu();
    proc->postUpgradeMpu(true);
    proc->postUpgradeMpu(false);
    expectCurrentFileNotRewritten(before);
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
}

// ---------------------------------------------------------------------------------------------------------------------
// Version strings
// ---------------------------------------------------------------------------------------------------------------------

std::string factoryText(int expectedResult = 0) {
    std::string text = "untouched";
    EXPECT_EQ(UPGRADE_getIntervalVersionString(text), expectedResult);
    return text;
}

TEST_F(VersionString, of_the_factory_is_made_of_the_stored_versions) {
    writeVersions(kCurrentFile, versionOf(9, 99, 98, 97));
    fake::mcuVersion().returns(55);
    EXPECT_EQ(factoryText(), "V01.104.007.002");
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
}

TEST_F(VersionString, is_padded_with_zeros_to_two_and_three_digits) {
    writeVersions(kFactoryFile, versionOf(3, 1, 0, 12));
    EXPECT_EQ(factoryText(), "V03.001.000.012");
    EXPECT_EQ(currentText(), "V03.001.000.012");
}

TEST_F(VersionString, is_never_cut) {
    writeVersions(kFactoryFile, versionOf(2147483647, -2147483647, 12345, -1));
    EXPECT_EQ(factoryText(), "V2147483647.-2147483647.12345.-01");
}

TEST_F(VersionString, of_the_factory_is_unchanged_without_a_factory_file) {
    std::filesystem::remove(kFactoryFile);
    EXPECT_EQ(factoryText(-1), "untouched");
    EXPECT_TRUE(fake::logged(3, "config_path '/etc/kavro/version.json' not exist!\n"));
    EXPECT_TRUE(fake::loggedStepError(kUnit, "UPGRADE_getIntervalVersionString"));
    EXPECT_EQ(fake::log().lines().size(), 2U) << fake::log();
}

TEST_F(VersionString, of_the_factory_is_unchanged_with_a_damaged_factory_file) {
    writeFile(kFactoryFile, "{");
    EXPECT_EQ(factoryText(-1), "untouched");
    EXPECT_TRUE(fake::loggedStepError(kUnit, "UPGRADE_getIntervalVersionString"));
}

// ---------------------------------------------------------------------------------------------------------------------
// A node that could not be created
// ---------------------------------------------------------------------------------------------------------------------

TEST(VersionsWithoutNode, the_microcontroller_is_asked_through_the_null_handle) {
    ASSERT_TRUE(testsupport::inTwin());
    fake::reset();
    fake::node().setNull(true);
    fake::mcuVersion().returns(12);
    std::string text;
    EXPECT_EQ(UPGRADE_get_cur_ver_str(text), 0);
    EXPECT_EQ(text, "V01.104.012.002");
    EXPECT_EQ(fake::calls().count("mcuVersion()"), 1U);
    EXPECT_EQ(UpgradeProc::getInstance()->node, nullptr);
}

}  // namespace
