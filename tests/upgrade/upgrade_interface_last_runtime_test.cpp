// The outcome of the last run, which is kept across a restart and told once.
#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/upgrade/failing_access.h"
#include "upgrade/upgrade_interface.h"

namespace {

using testsupport::exists;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::writeFile;

constexpr const char* kFile = "/config/upgrade_last_runtime";

UPG_STS_LSAT_RT_E statusOf(int value) {
    return static_cast<UPG_STS_LSAT_RT_E>(value);
}

class LastRuntime : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        testsupport::emptyDevice();
        fake::reset();
    }

    UPG_STS_LSAT_RT_E status = statusOf(77);
};

// The five outcomes with the names that stand in the file.
const std::vector<std::pair<int, std::string>>& outcomes() {
    static const std::vector<std::pair<int, std::string>> rows{{0, "none"},
                                                               {1, "upgrade_success"},
                                                               {2, "upgrade_failure"},
                                                               {3, "rollback_success"},
                                                               {4, "rollback_failure"}};
    return rows;
}

TEST_F(LastRuntime, each_outcome_is_written_as_its_name_and_nothing_else) {
    for (const auto& [value, name] : outcomes()) {
        EXPECT_TRUE(UPGRADE_set_status_last_runtime(statusOf(value)));
        EXPECT_EQ(readFile(kFile), name);
    }
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(LastRuntime, an_outcome_replaces_whatever_the_file_held) {
    for (const auto& [value, name] : outcomes()) {
        writeFile(kFile, "rollback_success and much more than any name has");
        EXPECT_TRUE(UPGRADE_set_status_last_runtime(statusOf(value)));
        EXPECT_EQ(readFile(kFile), name);
    }
}

TEST_F(LastRuntime, each_outcome_is_told_once) {
    for (const auto& [value, name] : outcomes()) {
        SCOPED_TRACE(name);
        writeFile(kFile, name);
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
        EXPECT_EQ(static_cast<int>(status), value);
        EXPECT_FALSE(exists(kFile));
        status = statusOf(77);
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
        EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
    }
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(LastRuntime, the_outcomes_have_their_numbers) {
    EXPECT_EQ(static_cast<int>(UPG_STS_LAST_RT_NONE), 0);
    EXPECT_EQ(static_cast<int>(UPG_STS_LAST_RT_UPGRADE_SUCCESS), 1);
    EXPECT_EQ(static_cast<int>(UPG_STS_LAST_RT_UPGRADE_FAILURE), 2);
    EXPECT_EQ(static_cast<int>(UPG_STS_LAST_RT_ROLLBACK_SUCCESS), 3);
    EXPECT_EQ(static_cast<int>(UPG_STS_LAST_RT_ROLLBACK_FAILURE), 4);
}

TEST(LastRuntimeFile, has_its_fixed_path) {
    EXPECT_STREQ(UPGRADE_LAST_RUNTIME_FILE, kFile);
}

TEST_F(LastRuntime, without_a_file_there_was_nothing) {
    EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
    EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(LastRuntime, a_file_about_which_storage_gives_no_answer_is_none_and_stays) {
    writeFile(kFile, "rollback_success");
    {
        const upgradetest::UnansweredPath unanswered(kFile);
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
        EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
    }
    EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
    EXPECT_EQ(status, UPG_STS_LAST_RT_ROLLBACK_SUCCESS);
}

// The empty text is the name of no outcome, although the table ends with it.
TEST_F(LastRuntime, an_unknown_name_is_an_error_and_goes) {
    const std::vector<std::string> names{"",
                                         "\n",
                                         "upgrade_success\n",
                                         " upgrade_success",
                                         "upgrade_succes",
                                         "upgrade_successes",
                                         "UPGRADE_SUCCESS",
                                         "3",
                                         "unknown",
                                         std::string(100000, 'u')};
    for (const std::string& name : names) {
        SCOPED_TRACE(testing::PrintToString(name.substr(0, 20)));
        writeFile(kFile, name);
        status = statusOf(77);
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), -1);
        EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
        EXPECT_FALSE(exists(kFile));
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
        EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
    }
}

TEST_F(LastRuntime, an_empty_directory_in_its_place_is_an_error_and_goes) {
    std::filesystem::create_directory(kFile);
    EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), -1);
    EXPECT_EQ(status, UPG_STS_LAST_RT_NONE);
    EXPECT_FALSE(exists(kFile));
}

TEST_F(LastRuntime, that_cannot_be_written_is_reported_and_nothing_else_happens) {
    std::filesystem::create_directory(kFile);
    const std::vector<std::string> before = namesIn("/config");
    EXPECT_FALSE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_SUCCESS));
    EXPECT_EQ(namesIn("/config"), before);
    EXPECT_TRUE(namesIn(kFile).empty());
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(LastRuntime, a_value_without_a_name_is_never_told_as_an_outcome) {
    for (const int value : {5, -1, -99999999}) {
        UPGRADE_set_status_last_runtime(statusOf(value));
        EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), -1) << value;
        EXPECT_EQ(status, UPG_STS_LAST_RT_NONE) << value;
        EXPECT_FALSE(exists(kFile)) << value;
    }
}

TEST_F(LastRuntime, leaves_no_other_file_behind) {
    const std::vector<std::string> before = namesIn("/config");
    const unsigned long descriptors = testsupport::descriptorCount();
    EXPECT_TRUE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_FAILURE));
    EXPECT_TRUE(UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_UPGRADE_SUCCESS));
    EXPECT_EQ(namesIn("/config").size(), before.size() + 1);
    EXPECT_EQ(UPGRADE_get_status_last_runtime(&status), 0);
    EXPECT_EQ(namesIn("/config"), before);
    EXPECT_EQ(testsupport::descriptorCount(), descriptors);
}

TEST_F(LastRuntime, a_cancel_that_is_pending_acts_only_after_the_record_is_written_or_told) {
    bool wrote = false;
    bool told = false;
    bool survived = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        wrote = UPGRADE_set_status_last_runtime(UPG_STS_LAST_RT_ROLLBACK_FAILURE);
        told = UPGRADE_get_status_last_runtime(&status) == 0;
        pthread_testcancel();
        survived = true;
    });
    thread.join();
    EXPECT_TRUE(wrote);
    EXPECT_TRUE(told);
    EXPECT_FALSE(survived);
    EXPECT_EQ(status, UPG_STS_LAST_RT_ROLLBACK_FAILURE);
    EXPECT_FALSE(exists(kFile));
}

}  // namespace
