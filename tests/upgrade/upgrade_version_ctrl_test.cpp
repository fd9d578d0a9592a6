// Version files and the rule that decides what to flash.
#include "upgrade/upgrade_version_ctrl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "tests/upgrade/failing_access.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::exists;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::readVersions;
using testsupport::versionOf;
using testsupport::writeFile;
using testsupport::writeVersions;

constexpr const char* kUnit = "upgrade/upgrade_version_ctrl";
constexpr const char* kConfigUnit = "upgrade/upgrade_common";
constexpr const char* kRead = "UPGRADE_read_target_version";
constexpr const char* kWrite = "UPGRADE_write_target_version";
constexpr const char* kFactoryFile = "/etc/kavro/version.json";
constexpr const char* kFile = "/config/versions.json";

const L_VERSION_T kFactory = versionOf(1, 104, 7, 2);
const L_VERSION_T kUntouched = versionOf(-11, -12, -13, -14);

class VersionFile : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        testsupport::emptyDevice();
        fake::reset();
        fake::resetCommands();
        writeVersions(kFactoryFile, kFactory);
    }

    int read(const std::string& path = kFile) { return UPGRADE_read_target_version(version, path); }
    static int write(L_VERSION_T values, const std::string& path = kFile) {
        return UPGRADE_write_target_version(values, path);
    }

    static testing::AssertionResult loggedReadFailure(const std::string& key) {
        return fake::loggedError(kUnit, kRead,
                                 "read config '" + key + "' from file '" + kFile + "' failed;\n");
    }
    static testing::AssertionResult loggedWriteFailure(const std::string& key, const std::string& path) {
        return fake::loggedError(kUnit, kWrite,
                                 "write config '" + key + "' to file '" + path + "' failed;\n");
    }

    L_VERSION_T version = kUntouched;
};

using VersionRead = VersionFile;
using VersionWrite = VersionFile;

TEST(VersionRecord, holds_hw_mpu_mcu_and_bld_in_this_order) {
    EXPECT_EQ(sizeof(L_VERSION_T), 16U);
    EXPECT_EQ(offsetof(L_VERSION_T, hw), 0U);
    EXPECT_EQ(offsetof(L_VERSION_T, mpu), 4U);
    EXPECT_EQ(offsetof(L_VERSION_T, mcu), 8U);
    EXPECT_EQ(offsetof(L_VERSION_T, bld), 12U);
}

TEST(UpgradeFlags, hold_bld_mpu_and_mcu_in_this_order) {
    EXPECT_EQ(sizeof(UPGRADE_FLAG_T), 3U);
    EXPECT_EQ(offsetof(UPGRADE_FLAG_T, bld), 0U);
    EXPECT_EQ(offsetof(UPGRADE_FLAG_T, mpu), 1U);
    EXPECT_EQ(offsetof(UPGRADE_FLAG_T, mcu), 2U);
}

// ---------------------------------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------------------------------

TEST_F(VersionRead, all_four_members_are_read_without_a_log_line) {
    writeVersions(kFile, versionOf(3, 2147483647, -1, -2147483647 - 1));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(version, versionOf(3, 2147483647, -1, -2147483647 - 1));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(VersionRead, a_missing_file_is_told_apart_from_a_bad_one) {
    EXPECT_EQ(read("/config/none.json"), -2);
    EXPECT_EQ(version, kUntouched);
    EXPECT_TRUE(fake::logged(3, "config_path '/config/none.json' not exist!\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_THAT(fake::commands(), IsEmpty());
    EXPECT_FALSE(exists("/config/none.json"));
}

TEST_F(VersionRead, a_file_about_which_storage_gives_no_answer_counts_as_missing) {
    writeVersions(kFile, kFactory);
    const upgradetest::UnansweredPath unanswered(kFile);
    EXPECT_EQ(read(), -2);
    EXPECT_EQ(version, kUntouched);
    EXPECT_TRUE(fake::logged(3, "config_path '/config/versions.json' not exist!\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
}

TEST_F(VersionRead, a_file_without_bld_fails_after_the_three_members_before_it) {
    writeFile(kFile, R"({"hw_version" : 1, "mpu_version" : 104, "mcu_version" : 7})");
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(version, versionOf(1, 104, 7, kUntouched.bld));
    EXPECT_TRUE(fake::loggedError(kConfigUnit, "UPGRADE_COMM_read_config",
                                  "file '" + std::string(kFile) + "', has on option 'bld_version'\n"));
    EXPECT_TRUE(loggedReadFailure("bld_version"));
    EXPECT_EQ(fake::log().lines().size(), 2U);
}

// The members are read in the order hw, mpu, mcu, bld, and the first that fails ends it.
TEST_F(VersionRead, the_first_member_that_cannot_be_read_ends_it) {
    const std::vector<std::string> keys{"hw_version", "mpu_version", "mcu_version", "bld_version"};
    const std::vector<L_VERSION_T> expected{kUntouched, versionOf(5, -12, -13, -14),
                                            versionOf(5, 5, -13, -14), versionOf(5, 5, 5, -14)};
    for (unsigned long bad = 0; bad < keys.size(); ++bad) {
        SCOPED_TRACE(keys[bad]);
        fake::reset();
        std::string document = "{\"\" : 0";
        for (unsigned long i = 0; i < keys.size(); ++i) {
            document += ", \"" + keys[i] + "\" : " + (i >= bad ? "\"text\"" : "5");
        }
        writeFile(kFile, document + "}");
        version = kUntouched;
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(version, expected[bad]);
        EXPECT_TRUE(fake::loggedError(kConfigUnit, "UPGRADE_COMM_read_config",
                                      "option '" + keys[bad] + "' not asInt\n"));
        EXPECT_TRUE(loggedReadFailure(keys[bad]));
        EXPECT_EQ(fake::log().lines().size(), 2U);
    }
}

TEST_F(VersionRead, a_member_outside_32_bits_cannot_be_read) {
    writeFile(kFile,
              R"({"hw_version" : 1, "mpu_version" : 4294967296, "mcu_version" : 7, "bld_version" : 2})");
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(version, versionOf(1, -12, -13, -14));
    EXPECT_TRUE(loggedReadFailure("mpu_version"));
}

TEST_F(VersionRead, documents_of_the_wrong_shape_cannot_be_read) {
    const std::string deep(100000, '[');
    for (const std::string& document :
         {std::string(), std::string("[1, 2, 3, 4]"), std::string("7"), std::string("\"hw_version\""),
          std::string("{\"hw_version\""), std::string("null"), deep}) {
        SCOPED_TRACE(document.substr(0, 20));
        writeFile(kFile, document);
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(version, kUntouched);
        EXPECT_TRUE(loggedReadFailure("hw_version"));
    }
}

TEST_F(VersionRead, other_members_do_not_matter) {
    writeFile(
        kFile,
        R"({"hw_version" : 1, "mpu_version" : 2, "x" : [], "mcu_version" : 3, "bld_version" : 4, "mpu" : 9})");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(version, versionOf(1, 2, 3, 4));
}

TEST_F(VersionRead, a_directory_cannot_be_read) {
    EXPECT_EQ(read("/config"), -1);
    EXPECT_EQ(version, kUntouched);
}

// ---------------------------------------------------------------------------------------------------------------------
// Writing
// ---------------------------------------------------------------------------------------------------------------------

TEST_F(VersionWrite, a_missing_file_starts_as_a_copy_of_the_factory_file) {
    EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
    EXPECT_THAT(fake::commands(), ElementsAre("cp /etc/kavro/version.json /config/versions.json"));
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_EQ(readVersions(kFactoryFile), kFactory);
}

TEST_F(VersionWrite, a_new_file_holds_exactly_the_four_members) {
    EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
    const std::string text = readFile(kFile);
    EXPECT_EQ(std::count(text.begin(), text.end(), ':'), 4) << text;
}

TEST_F(VersionWrite, a_new_file_takes_over_what_else_the_factory_file_holds) {
    writeFile(
        kFactoryFile,
        R"({"hw_version" : 1, "mpu_version" : 2, "mcu_version" : 3, "bld_version" : 4, "serial" : "A7"})");
    EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_NE(readFile(kFile).find("\"A7\""), std::string::npos);
}

TEST_F(VersionWrite, success_is_logged_once_with_path_and_versions) {
    EXPECT_EQ(write(versionOf(1, 105, -1, 3)), 0);
    EXPECT_TRUE(
        fake::loggedTimes(1, 3, "UPGRADE_write_target_version /config/versions.json: version 1.105.-1.3\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
}

TEST_F(VersionWrite, an_existing_file_keeps_its_other_members_and_needs_no_factory_file) {
    std::filesystem::remove(kFactoryFile);
    writeFile(kFile, R"({"serial" : "A7", "mpu_version" : 1})");
    EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_NE(readFile(kFile).find("\"A7\""), std::string::npos);
    EXPECT_THAT(fake::commands(), IsEmpty());
}

TEST_F(VersionWrite, a_file_about_which_storage_gives_no_answer_starts_anew_from_the_factory_file) {
    writeFile(kFile, R"({"serial" : "A7", "mpu_version" : 1})");
    const upgradetest::UnansweredPath unanswered(kFile);
    EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
    EXPECT_THAT(fake::commands(), ElementsAre("cp /etc/kavro/version.json /config/versions.json"));
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_EQ(readFile(kFile).find("serial"), std::string::npos);
}

TEST_F(VersionWrite, a_damaged_file_becomes_a_version_file) {
    for (const std::string& document : {std::string(), std::string("[1]"), std::string("\"x\""),
                                        std::string("{\"hw_ver"), std::string(100000, '{')}) {
        writeFile(kFile, document);
        EXPECT_EQ(write(versionOf(1, 105, 8, 3)), 0);
        EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    }
}

TEST_F(VersionWrite, without_a_factory_file_there_is_no_new_file) {
    std::filesystem::remove(kFactoryFile);
    EXPECT_EQ(write(kFactory), -1);
    EXPECT_FALSE(exists(kFile));
    EXPECT_TRUE(fake::loggedError(kUnit, kWrite, "config_path '/config/versions.json' not exist!\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
}

TEST_F(VersionWrite, in_a_missing_directory_there_is_no_new_file) {
    EXPECT_EQ(write(kFactory, "/config/none/v.json"), -1);
    EXPECT_FALSE(exists("/config/none"));
    EXPECT_TRUE(fake::loggedError(kUnit, kWrite, "config_path '/config/none/v.json' not exist!\n"));
}

TEST_F(VersionWrite, a_link_that_leads_nowhere_stays_when_no_file_can_be_made_there) {
    std::filesystem::create_symlink("/config/none/v.json", kFile);
    EXPECT_EQ(write(kFactory), -1);
    EXPECT_TRUE(exists(kFile));
    EXPECT_FALSE(exists("/config/none"));
    EXPECT_TRUE(fake::loggedError(kUnit, kWrite, "config_path '/config/versions.json' not exist!\n"));
}

TEST_F(VersionWrite, the_first_member_that_cannot_be_written_ends_it) {
    std::filesystem::create_directory(kFile);
    EXPECT_EQ(write(kFactory), -1);
    EXPECT_TRUE(loggedWriteFailure("hw_version", kFile));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
    EXPECT_THAT(fake::commands(), IsEmpty());
    EXPECT_TRUE(namesIn(kFile).empty());
}

TEST_F(VersionWrite, a_new_file_at_a_path_that_the_shell_would_split_is_made_there) {
    const std::vector<std::string> names{
        "a b.json",   "it's.json", "$(touch bad).json", "a;touch bad.json", "a\nb.json",    "-rf.json",
        "\"q\".json", "*.json",    "a&b.json",          "`touch bad`.json", "\xc3\xbc.json"};
    std::filesystem::create_directory("/config/own");
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        const std::string path = "/config/own/" + name;
        EXPECT_EQ(write(versionOf(1, 105, 8, 3), path), 0);
        EXPECT_EQ(readVersions(path), versionOf(1, 105, 8, 3));
        EXPECT_TRUE(fake::logged(3, "UPGRADE_write_target_version " + path + ": version 1.105.8.3\n"));
    }
    EXPECT_EQ(namesIn("/config/own").size(), names.size());
}

TEST_F(VersionWrite, a_path_that_is_too_long_fails_with_its_whole_text_in_the_log) {
    const std::string path = "/config/" + std::string(4000, 'x');
    EXPECT_EQ(write(kFactory, path), -1);
    EXPECT_TRUE(fake::loggedError(kUnit, kWrite, "config_path '" + path + "' not exist!\n"));
    EXPECT_EQ(read(path), -2);
    EXPECT_TRUE(fake::logged(3, "config_path '" + path + "' not exist!\n"));
}

TEST_F(VersionWrite, no_descriptor_child_or_other_file_is_left) {
    std::filesystem::create_directory("/config/own");
    const unsigned long descriptors = testsupport::descriptorCount();
    const std::vector<int> processes = testsupport::processPids();
    EXPECT_EQ(write(kFactory, "/config/own/v.json"), 0);
    EXPECT_EQ(write(versionOf(1, 2, 3, 4), "/config/own/v.json"), 0);
    EXPECT_EQ(read("/config/own/v.json"), 0);
    EXPECT_THAT(namesIn("/config/own"), ElementsAre("v.json"));
    EXPECT_EQ(testsupport::descriptorCount(), descriptors);
    EXPECT_THAT(testsupport::newProcesses(processes), IsEmpty());
}

class VersionWriteCancelled : public VersionFile {
  protected:
    // Writes and reads on a thread whose cancel is already pending.
    bool writtenAndRead(const std::string& path) {
        bool done = false;
        std::thread thread([&] {
            pthread_cancel(pthread_self());
            done = write(versionOf(1, 105, 8, 3), path) == 0 && read(path) == 0;
        });
        thread.join();
        return done;
    }
};

TEST_F(VersionWriteCancelled, an_existing_file_is_finished_first) {
    writeVersions(kFile, kFactory);
    EXPECT_TRUE(writtenAndRead(kFile));
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_TRUE(fake::nothingLoggedWhileCancellable());
}

TEST_F(VersionWriteCancelled, a_new_file_is_finished_first) {
    EXPECT_TRUE(writtenAndRead(kFile));
    EXPECT_EQ(readVersions(kFile), versionOf(1, 105, 8, 3));
    EXPECT_TRUE(fake::nothingLoggedWhileCancellable());
}

// ---------------------------------------------------------------------------------------------------------------------
// What to flash
// ---------------------------------------------------------------------------------------------------------------------

struct Decision {
    L_VERSION_T current;
    L_VERSION_T package;
    bool bld;
    bool mcu;
};

TEST(UpgradeDecision, follows_bootloader_and_microcontroller_and_always_takes_the_main_processor) {
    const std::vector<Decision> decisions{
        {versionOf(1, 104, 7, 2), versionOf(1, 105, 7, 2), false, false},  // newer main processor only
        {versionOf(1, 104, 7, 2), versionOf(9, 104, 6, 3), true,
         true},  // hw plays no part, an older version counts
        {versionOf(1, 104, 7, 2), versionOf(1, 104, 7, 2), false, false},  // all the same
        {versionOf(1, 104, 7, 2), versionOf(1, 104, 8, 2), false, true},
        {versionOf(1, 104, 7, 2), versionOf(1, 104, 7, 1), true, false},   // an older bootloader
        {versionOf(1, 104, -1, 2), versionOf(1, 104, 7, 2), false, true},  // a flash that did not finish
        {versionOf(1, 104, 7, 2), versionOf(2, 104, 7, 2), false, false},  // other hardware only
        {versionOf(0, 0, 0, 0), versionOf(0, 0, 0, 0), false, false},
    };
    for (const Decision& decision : decisions) {
        SCOPED_TRACE(testing::PrintToString(decision.package));
        for (const bool rollback : {false, true}) {
            for (const bool before : {false, true}) {
                UPGRADE_FLAG_T flag{};
                flag.bld = before;
                flag.mpu = before;
                flag.mcu = before;
                EXPECT_EQ(UPGRADE_set_upgrade_flag(flag, decision.current, decision.package, rollback), 0);
                EXPECT_EQ(flag.bld, decision.bld);
                EXPECT_TRUE(flag.mpu);
                EXPECT_EQ(flag.mcu, decision.mcu);
            }
        }
    }
}

}  // namespace
