// What an application asks while a run goes on and after it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/common/libc_spies.h"
#include "tests/common/rendezvous.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/upgrade/fake_tick.h"
#include "upgrade/upgrade_api.h"

namespace {

constexpr const char* kMarker = "/config/upgraded";
constexpr double kNow = 5000000.0;
constexpr double kMsPerSecond = 1000.0;

class Queries : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        fake::setTick(kNow);
        proc = UpgradeProc::getInstance();
        proc->resetRun();
        fake::log().clear();
        fake::node().clear();
        fake::calls().clear();
    }
    UpgradeProc* proc = nullptr;
};

// --- state and stage -------------------------------------------------------------------------

TEST_F(Queries, state_is_0_without_a_run) {
    EXPECT_EQ(UPGRADE_get_state(), 0);
}

TEST_F(Queries, state_is_1_in_every_stage_of_a_run) {
    for (int stage = UPGRADE_STAGE_INIT; stage <= UPGRADE_STAGE_DONE; ++stage) {
        proc->stage = stage;
        EXPECT_EQ(UPGRADE_get_state(), 1) << stage;
    }
    proc->state = UPGRADE_STATE_FAIL;
    EXPECT_EQ(UPGRADE_get_state(), 1);
}

TEST_F(Queries, state_is_2_after_a_run_that_succeeded) {
    proc->stage = UPGRADE_STAGE_DONE;
    proc->state = UPGRADE_STATE_FINISH;
    EXPECT_EQ(UPGRADE_get_state(), 2);
    proc->activated = true;
    EXPECT_EQ(UPGRADE_get_state(), 2);
}

TEST_F(Queries, state_is_2_while_the_marker_exists_whatever_else) {
    testsupport::writeFile(kMarker, "");
    EXPECT_EQ(UPGRADE_get_state(), 2);
    proc->activated = true;
    EXPECT_EQ(UPGRADE_get_state(), 2);
    proc->stage = UPGRADE_STAGE_START;
    EXPECT_EQ(UPGRADE_get_state(), 2);
}

TEST_F(Queries, state_is_3_after_activation_even_in_another_run) {
    proc->activated = true;
    EXPECT_EQ(UPGRADE_get_state(), 3);
    proc->stage = UPGRADE_STAGE_START;
    EXPECT_EQ(UPGRADE_get_state(), 3);
}

TEST_F(Queries, state_does_not_depend_on_the_running_flag) {
    proc->running = true;
    EXPECT_EQ(UPGRADE_get_state(), 0);
}

TEST_F(Queries, stage_is_that_of_the_controller_as_it_stands) {
    for (const int stage : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, -1, 12345}) {
        proc->stage = stage;
        EXPECT_EQ(UPGRADE_get_stage(), stage);
    }
}

TEST_F(Queries, log_and_publish_nothing) {
    proc->running = true;
    proc->stage = UPGRADE_STAGE_FLASHING_START;
    UPGRADE_get_state();
    UPGRADE_get_stage();
    UPGRADE_get_progress();
    UPGRADE_set_giveup_upgrade_flag();
    UPGRADE_get_giveup_sts();
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_TRUE(fake::calls().texts().empty());
}

// --- progress ----------------------------------------------------------------------------------

struct Moment {
    int stage;
    double seconds;  // since the stage began
    int percent;
};

void PrintTo(const Moment& moment, std::ostream* out) {
    *out << "stage " << moment.stage << " after " << moment.seconds << " s: " << moment.percent << " %";
}

class Progress : public Queries {
  protected:
    void SetUp() override {
        Queries::SetUp();
        proc->running = true;
        proc->upgradeFlag = {false, true, true};
    }
    int percentAfter(int stage, double seconds) {
        proc->stage = stage;
        proc->stageTick[stage] = kNow - seconds * kMsPerSecond;
        return UPGRADE_get_progress();
    }
    int flashingAfter(double seconds, bool mpu, bool mcu) {
        proc->upgradeFlag.mpu = mpu;
        proc->upgradeFlag.mcu = mcu;
        return percentAfter(UPGRADE_STAGE_FLASHING_START, seconds);
    }
};

class ProgressInStage : public Progress, public testing::WithParamInterface<Moment> {};

TEST_P(ProgressInStage, follows_the_time_spent_in_it) {
    EXPECT_EQ(percentAfter(GetParam().stage, GetParam().seconds), GetParam().percent);
}

INSTANTIATE_TEST_SUITE_P(
    Each, ProgressInStage,
    testing::Values(
        // IDLE: nothing.
        Moment{0, 0.5, 0}, Moment{0, 100.0, 0},
        // INIT: 7 percent in 10 s.
        Moment{1, 0.001, 0}, Moment{1, 1.428, 0}, Moment{1, 1.429, 1}, Moment{1, 5.0, 3}, Moment{1, 8.571, 5},
        Moment{1, 8.572, 6}, Moment{1, 9.999, 6}, Moment{1, 10.0, 6}, Moment{1, 4000.0, 6},
        // START: 20 percent in 30 s.
        Moment{2, 0.001, 7}, Moment{2, 1.499, 7}, Moment{2, 1.5, 8}, Moment{2, 15.0, 17}, Moment{2, 28.5, 26},
        Moment{2, 30.0, 26}, Moment{2, 40.0, 26},
        // PROC_PKG_DONE: 3 percent in 5 s.
        Moment{3, 0.001, 27}, Moment{3, 1.666, 27}, Moment{3, 1.667, 28}, Moment{3, 3.334, 29},
        Moment{3, 60.0, 29},
        // VERIFY_PKG_DONE and SET_FLAG_DONE: nothing.
        Moment{4, 0.5, 30}, Moment{4, 100.0, 30}, Moment{5, 0.5, 30}, Moment{5, 100.0, 30},
        // FLASHING_START: 65 percent, here in 180 s.
        Moment{6, 0.001, 30}, Moment{6, 2.76, 30}, Moment{6, 2.77, 31}, Moment{6, 90.0, 62},
        Moment{6, 179.0, 94}, Moment{6, 180.0, 94}, Moment{6, 1000.0, 94},
        // BACKUP_PACKAGE: 5 percent in 8 s.
        Moment{7, 0.001, 95}, Moment{7, 1.599, 95}, Moment{7, 1.6, 96}, Moment{7, 6.4, 99},
        Moment{7, 8.0, 99}, Moment{7, 80.0, 99},
        // DONE: all.
        Moment{8, 0.5, 100}, Moment{8, 100.0, 100}));

TEST_F(Progress, is_the_base_of_a_stage_that_was_not_yet_published) {
    const std::vector<int> bases = {0, 0, 7, 27, 30, 30, 30, 95, 100};
    for (int stage = 0; stage <= UPGRADE_STAGE_DONE; ++stage) {
        proc->stage = stage;
        proc->stageTick[stage] = 0.0;
        EXPECT_EQ(UPGRADE_get_progress(), bases[static_cast<unsigned>(stage)]) << stage;
        proc->stageTick[stage] = -1.0;
        EXPECT_EQ(UPGRADE_get_progress(), bases[static_cast<unsigned>(stage)]) << stage;
    }
}

TEST_F(Progress, of_both_one_after_the_other_takes_361_s) {
    proc->flashModeFlag = false;
    EXPECT_EQ(flashingAfter(5.553, true, true), 30);
    EXPECT_EQ(flashingAfter(5.554, true, true), 31);
    EXPECT_EQ(flashingAfter(90.0, true, true), 46);
    EXPECT_EQ(flashingAfter(360.0, true, true), 94);
    EXPECT_EQ(flashingAfter(361.0, true, true), 94);
}

TEST_F(Progress, of_one_processor_alone_takes_181_s_without_flashing_side_by_side) {
    proc->flashModeFlag = false;
    for (const bool mpu : {true, false}) {
        EXPECT_EQ(flashingAfter(2.784, mpu, !mpu), 30);
        EXPECT_EQ(flashingAfter(2.785, mpu, !mpu), 31);
        EXPECT_EQ(flashingAfter(90.5, mpu, !mpu), 62);
    }
}

TEST_F(Progress, takes_at_most_180_s_side_by_side) {
    for (const bool mpu : {true, false}) {
        EXPECT_EQ(flashingAfter(2.769, mpu, !mpu), 30);
        EXPECT_EQ(flashingAfter(2.770, mpu, !mpu), 31);
    }
    EXPECT_EQ(flashingAfter(2.769, true, true), 30);
    EXPECT_EQ(flashingAfter(2.770, true, true), 31);
}

TEST_F(Progress, of_flashing_nothing_takes_a_second) {
    for (const bool sideBySide : {true, false}) {
        proc->flashModeFlag = sideBySide;
        proc->upgradeFlag.bld = true;
        EXPECT_EQ(flashingAfter(0.5, false, false), 62);
        EXPECT_EQ(flashingAfter(1.0, false, false), 94);
    }
}

TEST_F(Progress, follows_what_is_flashed_from_query_to_query) {
    EXPECT_EQ(flashingAfter(0.5, false, false), 62);
    EXPECT_EQ(flashingAfter(0.5, true, true), 30);
    EXPECT_EQ(flashingAfter(0.5, false, false), 62);
}

TEST_F(Progress, counts_the_distance_to_a_start_in_the_future) {
    EXPECT_EQ(percentAfter(UPGRADE_STAGE_START, -15.0), 17);
}

TEST_F(Progress, reads_the_clock_of_the_present_stage_alone) {
    for (double& tick : proc->stageTick) {
        tick = kNow - 1000 * kMsPerSecond;
    }
    EXPECT_EQ(percentAfter(UPGRADE_STAGE_START, 15.0), 17);
}

TEST_F(Progress, is_0_beyond_the_last_stage) {
    for (const int stage : {9, 10, 1000000}) {
        proc->stage = stage;
        EXPECT_EQ(UPGRADE_get_progress(), 0) << stage;
    }
}

TEST_F(Progress, is_100_for_a_stage_below_the_first) {
    proc->stage = -1;
    EXPECT_EQ(UPGRADE_get_progress(), 100);
}

TEST_F(Progress, is_0_when_nothing_runs_and_nothing_succeeded) {
    proc->running = false;
    for (int stage = 0; stage <= UPGRADE_STAGE_DONE; ++stage) {
        EXPECT_EQ(percentAfter(stage, 3.0), 0) << stage;
    }
    proc->state = UPGRADE_STATE_FAIL;
    EXPECT_EQ(percentAfter(UPGRADE_STAGE_DONE, 3.0), 0);
}

TEST_F(Progress, is_100_after_a_run_that_succeeded) {
    proc->running = false;
    proc->state = UPGRADE_STATE_FINISH;
    EXPECT_EQ(percentAfter(UPGRADE_STAGE_DONE, 3.0), 100);
}

// --- giving up -----------------------------------------------------------------------------------

TEST_F(Queries, giving_up_is_a_request_to_the_controller) {
    EXPECT_FALSE(proc->giveup);
    UPGRADE_set_giveup_upgrade_flag();
    EXPECT_TRUE(proc->giveup);
    UPGRADE_set_giveup_upgrade_flag();
    EXPECT_TRUE(proc->giveup);
    EXPECT_EQ(UPGRADE_get_state(), 0);
}

TEST_F(Queries, without_a_run_nothing_became_of_giving_up_and_each_answer_takes_half_a_second) {
    constexpr unsigned long kPauseUs = 500000;
    spy::sleeps().clear();
    UPGRADE_set_giveup_upgrade_flag();
    EXPECT_EQ(UPGRADE_get_giveup_sts(), 0);
    EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), kPauseUs), 1U);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), 0);
    EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), kPauseUs), 2U);
}

// --- during a run ----------------------------------------------------------------------------------

TEST_F(Queries, answer_any_thread_while_a_run_goes_on) {
    constexpr const char* kPackage = "/tmp/without_trailer.pkg";
    constexpr unsigned long kPackageBytes = 134217728;
    testsupport::writeSparse(kPackage, kPackageBytes);
    std::atomic<bool> over{false};
    std::atomic<int> seenRunning{0};
    std::thread application([&] {
        while (!over) {
            const int state = UPGRADE_get_state();
            EXPECT_TRUE(state == 0 || state == 1) << state;
            const int percent = UPGRADE_get_progress();
            EXPECT_TRUE(percent >= 0 && percent <= 100) << percent;
            seenRunning += state == 1 ? 1 : 0;
        }
    });
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    over = true;
    application.join();
    EXPECT_GT(seenRunning, 0);
    EXPECT_EQ(UPGRADE_get_state(), 0);
    EXPECT_EQ(UPGRADE_get_progress(), 0);
}

}  // namespace
