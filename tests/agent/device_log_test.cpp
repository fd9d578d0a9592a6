#include "agent/internal/device_log.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <thread>

#include "agent/device_log.h"
#include "common/utility.h"
#include "upgrade/upgrade_api.h"

namespace {

using kavro::agent::DeviceLine;
using kavro::agent::DeviceLog;
using kavro::agent::LoggedChange;

class KeptDeviceLog : public testing::Test {
  protected:
    KeptDeviceLog() { kavro::agent::keepDeviceLog(); }
};

TEST_F(KeptDeviceLog, keeps_each_line_with_its_level_and_thread) {
    std::thread job([] {
        pthread_setname_np(pthread_self(), "aUpgrade_MPU");
        printLog(3, "written %d %%\n", 40);
    });
    job.join();
    printLog(2, "a notice");
    const DeviceLog log = kavro::agent::loggedLines();
    ASSERT_EQ(log.lines.size(), 2U);
    EXPECT_EQ(log.lines[0].text, "written 40 %");
    EXPECT_EQ(log.lines[0].level, 3);
    EXPECT_EQ(log.lines[0].thread, "aUpgrade_MPU");
    EXPECT_EQ(log.lines[1].text, "a notice");
    EXPECT_EQ(log.lines[1].level, 2);
    EXPECT_LE(log.lines[0].ms, log.lines[1].ms);
}

TEST_F(KeptDeviceLog, hands_on_each_change_of_a_run_once) {
    printLog(2, "&&&&& upgrade [stage %s], [result %s] &&&&&\n", "INIT", "NONE");
    printLog(2, "&&&&& upgrade [stage FLASHING_START], [result INPROGRESS_MCU] &&&&&\n");
    printLog(2, "&&&&& upgrade [stage SOMEWHERE], [result INPROGRESS_MCU] &&&&&\n");
    printLog(2, "upgrade FLASHING_START\n");
    const std::vector<LoggedChange> changes = kavro::agent::takeLoggedChanges();
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_EQ(changes[0].stage, UPGRADE_STAGE_INIT);
    EXPECT_EQ(changes[0].state, UPGRADE_STATE_NONE);
    EXPECT_EQ(changes[1].stage, UPGRADE_STAGE_FLASHING_START);
    EXPECT_EQ(changes[1].state, UPGRADE_STATE_INPROGRESS_MCU);
    EXPECT_LE(changes[0].ms, changes[1].ms);
    EXPECT_TRUE(kavro::agent::takeLoggedChanges().empty());
}

TEST_F(KeptDeviceLog, tells_each_error_once_and_without_where_it_was_logged) {
    for (int i = 0; i < 3; ++i) {
        printLog(1, "file:%s, func:%s line:%d no room in %s;\n", "upgrade/upgrade_api", "init", 12, "/raw");
    }
    printLog(1, "upgrade/upgrade_api init 12 error!!!\n");
    printLog(2, "no error");
    const std::vector<std::string> errors = kavro::agent::loggedErrors();
    EXPECT_EQ(std::count(errors.begin(), errors.end(), "no room in /raw"), 1);
    EXPECT_EQ(errors.size(), 1U);
}

TEST_F(KeptDeviceLog, is_forgotten_when_another_one_begins) {
    printLog(1, "an error");
    printLog(2, "&&&&& upgrade [stage %s], [result %s] &&&&&\n", "INIT", "NONE");
    kavro::agent::keepDeviceLog();
    EXPECT_TRUE(kavro::agent::loggedLines().lines.empty());
    EXPECT_TRUE(kavro::agent::loggedErrors().empty());
    EXPECT_TRUE(kavro::agent::takeLoggedChanges().empty());
}

TEST_F(KeptDeviceLog, of_a_flood_the_first_lines_stay_and_no_change_is_lost) {
    constexpr int kThreads = 4;
    constexpr int kLines = 1000;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) {
                printLog(3, "line %s\n", std::string(2000, 'x').c_str());
            }
            printLog(2, "&&&&& upgrade [stage DONE], [result FINISH] &&&&&\n");
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const DeviceLog log = kavro::agent::loggedLines();
    EXPECT_EQ(log.lines.size(), 2000U);
    EXPECT_EQ(log.lines.size() + log.dropped, std::size_t{kThreads} * (kLines + 1));
    EXPECT_EQ(kavro::agent::takeLoggedChanges().size(), static_cast<std::size_t>(kThreads));
    EXPECT_TRUE(std::is_sorted(log.lines.begin(), log.lines.end(),
                               [](const DeviceLine& a, const DeviceLine& b) { return a.ms < b.ms; }));
    for (const DeviceLine& line : log.lines) {
        EXPECT_LE(line.text.size(), 1024U);
    }
}

}  // namespace
