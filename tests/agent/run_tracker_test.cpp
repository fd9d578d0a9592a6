#include "agent/internal/run_tracker.h"

#include <gtest/gtest.h>

#include <string>

#include "upgrade/upgrade_api.h"

namespace {

using kavro::agent::RunTracker;
using kavro::agent::StageChange;
using kavro::agent::StateChange;

std::vector<int> stagesOf(const RunTracker& run) {
    std::vector<int> stages;
    for (const StageChange& change : run.stages()) {
        stages.push_back(change.stage);
    }
    return stages;
}

std::vector<int> statesOf(const RunTracker& run) {
    std::vector<int> states;
    for (const StateChange& change : run.states()) {
        states.push_back(change.state);
    }
    return states;
}

TEST(TooLateToGiveUp, says_that_flashing_goes_on_only_while_it_does) {
    EXPECT_NE(
        std::string(kavro::agent::tooLateToGiveUp(UPGRADE_STAGE_FLASHING_START)).find("flashing has begun"),
        std::string::npos);
    for (const int stage : {UPGRADE_STAGE_BACKUP_PACKAGE, UPGRADE_STAGE_DONE}) {
        EXPECT_NE(std::string(kavro::agent::tooLateToGiveUp(stage)).find("the run is ending"),
                  std::string::npos);
    }
}

TEST(RunTracker, each_change_counts_once_at_its_own_time) {
    RunTracker run;
    EXPECT_TRUE(run.change(UPGRADE_STAGE_INIT, UPGRADE_STATE_NONE, 0.5));
    EXPECT_TRUE(run.change(UPGRADE_STAGE_INIT, UPGRADE_STATE_START, 1.5));
    EXPECT_FALSE(run.change(UPGRADE_STAGE_INIT, UPGRADE_STATE_START, 2.5));
    EXPECT_TRUE(run.change(UPGRADE_STAGE_START, UPGRADE_STATE_START, 3.5));
    EXPECT_EQ(stagesOf(run), (std::vector<int>{UPGRADE_STAGE_INIT, UPGRADE_STAGE_START}));
    EXPECT_EQ(statesOf(run), (std::vector<int>{UPGRADE_STATE_NONE, UPGRADE_STATE_START}));
    EXPECT_EQ(run.stages().back().seconds, 3.5);
    EXPECT_EQ(run.states().back().seconds, 1.5);
}

TEST(RunTracker, a_line_that_another_thread_has_overtaken_changes_nothing) {
    RunTracker run;
    run.change(UPGRADE_STAGE_BACKUP_PACKAGE, UPGRADE_STATE_INPROGRESS_MCU, 1);
    EXPECT_FALSE(run.change(UPGRADE_STAGE_FLASHING_START, UPGRADE_STATE_INPROGRESS_MPU, 2));
    EXPECT_EQ(run.status().stage, UPGRADE_STAGE_BACKUP_PACKAGE);
    EXPECT_EQ(run.status().state, UPGRADE_STATE_INPROGRESS_MCU);
}

TEST(RunTracker, what_is_logged_around_a_run_is_none_of_it) {
    RunTracker run;
    EXPECT_FALSE(run.change(UPGRADE_STAGE_IDLE, UPGRADE_STATE_NONE, 0));
    EXPECT_TRUE(run.stages().empty());
    run.change(UPGRADE_STAGE_START, UPGRADE_STATE_FAIL, 1);
    EXPECT_FALSE(run.change(UPGRADE_STAGE_IDLE, UPGRADE_STATE_NONE, 2));
    EXPECT_FALSE(run.change(UpgradeProc::kStageCount, UPGRADE_STATE_NONE, 2));
    EXPECT_EQ(run.status().stage, UPGRADE_STAGE_START);
    EXPECT_EQ(run.status().state, UPGRADE_STATE_FAIL);
}

TEST(RunTracker, progress_and_time_never_go_back) {
    RunTracker run;
    run.change(UPGRADE_STAGE_INIT, UPGRADE_STATE_START, 5);
    run.advance(40, 6);
    run.advance(0, 5.5);
    EXPECT_EQ(run.status().progress, 40);
    EXPECT_EQ(run.status().seconds, 6);
}

TEST(RunTracker, what_remains_is_unknown_before_a_run) {
    RunTracker run;
    run.advance(0, 3);
    EXPECT_FALSE(run.status().remaining.has_value());
}

TEST(RunTracker, what_remains_is_unknown_while_a_stage_takes_longer_than_it_should) {
    RunTracker run;
    run.change(UPGRADE_STAGE_BACKUP_PACKAGE, UPGRADE_STATE_INPROGRESS_MCU, 100);
    run.advance(95, 107);
    ASSERT_TRUE(run.status().remaining.has_value());
    EXPECT_DOUBLE_EQ(*run.status().remaining, 2);
    run.advance(99, 109);
    EXPECT_FALSE(run.status().remaining.has_value());
    run.change(UPGRADE_STAGE_DONE, UPGRADE_STATE_FINISH, 200);
    ASSERT_TRUE(run.status().remaining.has_value());
    EXPECT_EQ(*run.status().remaining, 0);
}

// Stages shorter and longer than expected in turn.
TEST(RunTracker, what_remains_only_becomes_less) {
    RunTracker run;
    double seconds = 0;
    double least = 1e9;
    int known = 0;
    for (int stage = UPGRADE_STAGE_INIT; stage <= UPGRADE_STAGE_DONE; ++stage) {
        run.change(stage, UPGRADE_STATE_INPROGRESS_MPU, seconds);
        for (int step = 0; step < (stage % 2 == 0 ? 3 : 300); ++step) {
            if (run.status().remaining) {
                ++known;
                EXPECT_LE(*run.status().remaining, least) << stage << " " << seconds;
                EXPECT_GE(*run.status().remaining, 0) << stage << " " << seconds;
                least = *run.status().remaining;
            }
            run.advance(0, seconds += 1);
        }
    }
    EXPECT_GT(known, UPGRADE_STAGE_DONE);
    EXPECT_EQ(least, 0);
}

}  // namespace
