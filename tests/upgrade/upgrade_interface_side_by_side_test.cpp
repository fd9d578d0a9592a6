// Flashing both processors at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/upgrade/flashing_fixture.h"

namespace {

using namespace flashing;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::eventually;
using testsupport::Gate;

constexpr const char* kSideBySide = "UPGRADE_mpu_mcu_async";
constexpr unsigned long kSweepPeriodUs = 100000;

// --- both at once --------------------------------------------------------------------------------

class SideBySide : public Flashing {
  protected:
    static int flash(UPGRADE_FLAG_T flag) { return UPGRADE_mpu_mcu(kFirmware, flag, false); }
    // Waits of the calling thread are left out, so that minutes pass at once. What happens in one of them is
    // up to the test.
    void onWait(std::function<void(int number)> during) {
        waits = 0;
        const std::string waiting = spy::ownThreadName();
        spy::sleeps().onSleep([this, waiting, during = std::move(during)](const spy::Sleep& sleep) {
            if (sleep.threadName != waiting || sleep.microseconds != spy::kSecond) {
                return true;
            }
            during(++waits);
            return false;
        });
    }
    // The MPU's job stays at its work until the jobs are ended.
    void holdMpu(int result = 0) {
        fake::mpu().upgrade.runs([this, result] {
            gate.pass();
            return result;
        });
    }
    void endJobs() {
        gate.open();
        awaitJobsSwept();
    }
    void endJobsInWait(int wanted) {
        onWait([this, wanted](int number) {
            if (number == wanted) {
                endJobs();
            }
        });
    }
    // Until the monitor has looked at every job once more.
    static void awaitSweep() {
        constexpr unsigned long kSweeps = 2;
        const unsigned long before = spy::sleeps().count(kMonitor, kSweepPeriodUs);
        EXPECT_TRUE(
            eventually([&] { return spy::sleeps().count(kMonitor, kSweepPeriodUs) >= before + kSweeps; }));
    }
    void awaitJobsSwept() const {
        EXPECT_TRUE(eventually([this] { return !jobThreadIsThere(); }));
        awaitSweep();
    }

    Gate gate;
    std::atomic<int> waits{0};
};

TEST_F(SideBySide, is_the_default) {
    EXPECT_TRUE(proc->flashModeFlag);
}

TEST_F(SideBySide, each_processor_is_flashed_in_its_own_order_on_its_own_thread) {
    EXPECT_EQ(flash(kAll), 0);
    EXPECT_THAT(fake::calls().textsOf("mpu."), ElementsAre("mpu.preUpgrade(/raw/upgrade, true, true)",
                                                           "mpu.upgrade()", "mpu.postUpgrade()"));
    EXPECT_THAT(fake::calls().textsOf("mcu."), ElementsAre("mcu.preUpgrade(/raw/upgrade, true, false)",
                                                           "mcu.upgrade()", "mcu.postUpgrade()"));
    EXPECT_THAT(fake::calls().textsOf("spi"), ElementsAre("spi(true)", "spi(false)"));
    for (const fake::Call& call : fake::calls().all()) {
        const bool ofMpu = call.text.compare(0, 3, "mpu") == 0;
        EXPECT_EQ(call.threadName, ofMpu ? "aUpgrade_MPU" : "aUpgrade_MCU") << call.text;
    }
}

TEST_F(SideBySide, threads_are_there_by_name_while_both_are_flashed) {
    std::atomic<bool> seen{false};
    std::atomic<bool> mcuAtWork{false};
    fake::mcu().upgrade.runs([&] {
        mcuAtWork = true;
        return eventually([&] { return seen.load(); }) ? 0 : -1;
    });
    fake::mpu().upgrade.runs([&] {
        EXPECT_TRUE(eventually([&] { return mcuAtWork.load(); }));
        const std::vector<std::string> names = testsupport::threadNames();
        for (const char* name : {"aUpgrade_MPU", "aUpgrade_MCU", "aUpgrade_AMon"}) {
            EXPECT_THAT(names, testing::Contains(name));
        }
        seen = true;
        return 0;
    });
    EXPECT_EQ(flash(kBoth), 0);
    EXPECT_TRUE(seen);
}

TEST_F(SideBySide, monitor_runs_from_load_on) {
    EXPECT_TRUE(eventually([] {
        const std::vector<std::string> names = testsupport::threadNames();
        return std::count(names.begin(), names.end(), kMonitor) == 1;
    }));
}

TEST_F(SideBySide, both_are_flashed_at_the_same_time) {
    std::atomic<int> atWork{0};
    const auto meet = [&] {
        ++atWork;
        return eventually([&] { return atWork == 2; }) ? 0 : -1;
    };
    fake::mpu().upgrade.runs(meet);
    fake::mcu().upgrade.runs(meet);
    EXPECT_EQ(flash(kBoth), 0);
}

TEST_F(SideBySide, returns_only_when_both_are_over) {
    std::atomic<bool> mpuOver{false};
    fake::mpu().postUpgrade.runs([&] {
        EXPECT_TRUE(eventually([] { return fake::log().has(3, "upgrade_mcu_local ---, ret is 0\n"); }));
        usleep(300000);
        mpuOver = true;
        return 0;
    });
    EXPECT_EQ(flash(kBoth), 0);
    EXPECT_TRUE(mpuOver);
    EXPECT_TRUE(fake::logged(3, "upgrade_mpu: ret is 0;\n"));
    EXPECT_FALSE(jobThreadIsThere());
}

TEST_F(SideBySide, nothing_asked_for_is_success) {
    EXPECT_EQ(flash(kNothing), 0);
    EXPECT_THAT(driverCalls(), IsEmpty());
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mpu: ret is 0;\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mcu_local +++\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "no need to upgrade mcu!\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mcu_local ---, ret is 0\n"));
    EXPECT_EQ(recordedMcuVersion(), kPackageMcu);
}

TEST_F(SideBySide, third_argument_makes_no_difference) {
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kBoth, true), 0);
    for (const fake::Call& call : fake::calls().all()) {
        EXPECT_NE(call.threadName, spy::ownThreadName()) << call.text;
    }
    EXPECT_EQ(driverCalls().size(), 8U);
}

TEST_F(SideBySide, mpu_failure_is_minus_1000) {
    fake::mpu().upgrade.returns(-5);
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "upgrade_mpu", 75));
    EXPECT_TRUE(fake::logged(3, "upgrade_mpu: ret is -1;\n"));
    EXPECT_TRUE(fake::logged(1,
                             "file:upgrade/upgrade_interface, func:UPGRADE_mpu_mcu_async line:192 "
                             "UPGRADE_mpu_mcu_async mpu failed;\n"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
}

TEST_F(SideBySide, mpu_failure_does_not_stop_the_mcu) {
    fake::mpu().preUpgrade.returns(-5);
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_EQ(fake::calls().count("mcu.postUpgrade()"), 1U);
    EXPECT_EQ(recordedMcuVersion(), kPackageMcu);
}

TEST_F(SideBySide, mcu_failure_is_minus_999) {
    fake::mcu().postUpgrade.returns(-5);
    EXPECT_EQ(flash(kBoth), -999);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "upgrade_mcu_local", 130));
    EXPECT_TRUE(fake::logged(1,
                             "file:upgrade/upgrade_interface, func:UPGRADE_mpu_mcu_async line:197 "
                             "UPGRADE_mpu_mcu_async mcu failed;\n"));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
    EXPECT_EQ(fake::calls().count("mpu.postUpgrade()"), 1U);
}

TEST_F(SideBySide, mpu_failure_is_reported_before_that_of_the_mcu) {
    fake::mpu().upgrade.returns(-5);
    fake::mcu().upgrade.returns(-6);
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_TRUE(fake::loggedError(kUnit, kSideBySide, "UPGRADE_mpu_mcu_async mpu failed;\n", 192));
    EXPECT_EQ(fake::countErrors(kUnit, kSideBySide, "UPGRADE_mpu_mcu_async mcu failed;\n"), 0U);
}

TEST_F(SideBySide, mcu_state_is_published_from_its_thread) {
    EXPECT_EQ(flash(kBoth), 0);
    EXPECT_EQ(proc->state, UPGRADE_STATE_INPROGRESS_MCU);
    ASSERT_EQ(fake::node().count(), 1U);
    EXPECT_EQ(fake::node().messages()[0].word(3), 3);
    EXPECT_EQ(fake::node().messages()[0].threadName, "aUpgrade_MCU");
}

TEST_F(SideBySide, without_an_mpu_driver_the_mpu_fails) {
    proc->mpu.reset();
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "upgrade_mpu", 69));
}

// --- jobs that do not report ---------------------------------------------------------------------

TEST_F(SideBySide, an_mpu_job_that_cannot_start_is_a_failed_mpu) {
    spy::failThreads({true, false});
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_THAT(fake::calls().textsOf("mpu"), IsEmpty());
    EXPECT_EQ(fake::calls().count("mcu.postUpgrade()"), 1U);
    EXPECT_THAT(fake::log().linesAtLevel(1),
                ElementsAre("file:upgrade/upgrade_interface, func:UPGRADE_mpu_mcu_async line:192 "
                            "UPGRADE_mpu_mcu_async mpu failed;\n"));
}

TEST_F(SideBySide, an_mcu_job_that_cannot_start_is_a_failed_mcu) {
    spy::failThreads({false, true});
    EXPECT_EQ(flash(kBoth), -999);
    EXPECT_THAT(fake::calls().textsOf("mcu"), IsEmpty());
    EXPECT_EQ(fake::calls().count("mpu.postUpgrade()"), 1U);
    EXPECT_THAT(fake::log().linesAtLevel(1),
                ElementsAre("file:upgrade/upgrade_interface, func:UPGRADE_mpu_mcu_async line:197 "
                            "UPGRADE_mpu_mcu_async mcu failed;\n"));
    EXPECT_EQ(recordedMcuVersion(), kInstalledMcu);
}

TEST_F(SideBySide, without_any_job_the_mpu_has_failed_at_once) {
    spy::failThreads({true, true});
    spy::sleeps().clear();
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), spy::kSecond), 0U);
    EXPECT_THAT(driverCalls(), IsEmpty());
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
}

TEST_F(SideBySide, a_job_that_cannot_start_fails_even_if_nothing_is_asked_of_it) {
    spy::failThreads({true, false});
    EXPECT_EQ(flash(kNothing), -1000);
}

TEST_F(SideBySide, results_of_an_earlier_run_do_not_count) {
    ASSERT_EQ(flash(kBoth), 0);
    spy::failThreads({true, true});
    EXPECT_EQ(flash(kBoth), -1000);
    spy::failThreads({false, true});
    EXPECT_EQ(flash(kBoth), -999);
}

TEST_F(SideBySide, failures_of_an_earlier_run_do_not_count) {
    fake::mpu().upgrade.returns(-1);
    fake::mcu().upgrade.returns(-1);
    ASSERT_EQ(flash(kBoth), -1000);
    fake::mpu().upgrade.returns(0);
    fake::mcu().upgrade.returns(0);
    EXPECT_EQ(flash(kBoth), 0);
}

// --- the wait ------------------------------------------------------------------------------------

TEST_F(SideBySide, jobs_are_looked_for_once_a_second) {
    holdMpu();
    endJobsInWait(5);
    EXPECT_EQ(flash(kMpuOnly), 0);
    EXPECT_EQ(waits, 5);
}

TEST_F(SideBySide, wait_is_over_after_361_seconds) {
    holdMpu();
    onWait([](int) {});
    EXPECT_EQ(flash(kBoth), -992);
    EXPECT_EQ(waits, 361);
    EXPECT_THAT(fake::log().linesAtLevel(1),
                ElementsAre("file:upgrade/upgrade_interface, func:UPGRADE_mpu_mcu_async line:187 "
                            "UPGRADE_mpu_mcu_async timeout;\n"));
    endJobs();
}

TEST_F(SideBySide, jobs_that_end_in_the_360th_second_are_in_time) {
    holdMpu();
    endJobsInWait(360);
    EXPECT_EQ(flash(kBoth), 0);
    EXPECT_EQ(waits, 360);
}

TEST_F(SideBySide, jobs_that_end_in_the_361st_second_are_too_late) {
    holdMpu();
    endJobsInWait(361);
    EXPECT_EQ(flash(kBoth), -992);
    EXPECT_TRUE(fake::logged(3, "upgrade_mpu: ret is 0;\n"));
    EXPECT_TRUE(fake::loggedError(kUnit, kSideBySide, "UPGRADE_mpu_mcu_async timeout;\n", 187));
}

TEST_F(SideBySide, timing_out_goes_before_a_failure) {
    holdMpu();
    fake::mcu().preUpgrade.returns(-1);
    onWait([](int) {});
    EXPECT_EQ(flash(kBoth), -992);
    EXPECT_EQ(fake::countErrors(kUnit, kSideBySide, "UPGRADE_mpu_mcu_async mcu failed;\n"), 0U);
    endJobs();
}

TEST_F(SideBySide, a_job_that_outlived_its_wait_runs_on_and_is_swept) {
    holdMpu();
    onWait([](int) {});
    ASSERT_EQ(flash(kBoth), -992);
    EXPECT_TRUE(jobThreadIsThere());
    gate.open();
    EXPECT_TRUE(fake::log().waitFor(3, "upgrade_mpu: ret is 0;\n"));
    awaitJobsSwept();
    // Nothing is listed any more: the next run does not wait for it.
    spy::failThreads({true, true});
    onWait([](int) {});
    EXPECT_EQ(flash(kBoth), -1000);
    EXPECT_EQ(waits, 0);
}

TEST_F(SideBySide, run_after_a_late_failure_starts_afresh) {
    holdMpu(-1);
    onWait([](int) {});
    ASSERT_EQ(flash(kBoth), -992);
    gate.open();
    EXPECT_TRUE(fake::log().waitFor(3, "upgrade_mpu: ret is -1;\n"));
    awaitJobsSwept();
    spy::sleeps().onSleep({});
    fake::mpu().upgrade.returns(0);
    EXPECT_EQ(flash(kBoth), 0);
}

TEST_F(SideBySide, late_success_of_an_older_job_does_not_hide_the_failure_of_this_run) {
    std::atomic<int> flashes{0};
    fake::mpu().upgrade.runs([&] {
        if (++flashes > 1) {
            return -1;
        }
        gate.pass();
        return 0;
    });
    onWait([](int) {});
    ASSERT_EQ(flash(kMpuOnly), -992);
    ASSERT_TRUE(eventually([&] { return flashes == 1; }));
    onWait([&](int number) {
        if (number == 3) {
            EXPECT_TRUE(fake::log().waitFor(3, "upgrade_mpu: ret is -1;\n"));
            endJobs();
        }
    });
    EXPECT_EQ(flash(kMpuOnly), -1000);
}

TEST_F(SideBySide, late_failure_of_an_older_job_does_not_fail_this_run) {
    std::atomic<int> flashes{0};
    fake::mcu().upgrade.runs([&] {
        if (++flashes > 1) {
            return 0;
        }
        gate.pass();
        return -1;
    });
    onWait([](int) {});
    ASSERT_EQ(flash(kMcuOnly), -992);
    ASSERT_TRUE(eventually([&] { return flashes == 1; }));
    onWait([&](int number) {
        if (number == 3) {
            EXPECT_TRUE(fake::log().waitFor(3, "upgrade_mcu_local ---, ret is 0\n"));
            endJobs();
        }
    });
    EXPECT_EQ(flash(kMcuOnly), 0);
}

TEST_F(SideBySide, run_while_an_older_job_goes_on_waits_for_it_too) {
    std::atomic<int> flashes{0};
    fake::mpu().upgrade.runs([&] {
        if (++flashes == 1) {
            gate.pass();
        }
        return 0;
    });
    onWait([](int) {});
    ASSERT_EQ(flash(kMpuOnly), -992);
    onWait([&](int number) {
        if (number == 3) {
            EXPECT_TRUE(eventually([&] { return flashes == 2; }));
            endJobs();
        }
    });
    EXPECT_EQ(flash(kMpuOnly), 0);
    EXPECT_EQ(waits, 3);
}

}  // namespace
