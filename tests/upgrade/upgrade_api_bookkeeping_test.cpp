// What the controller writes down about a run: its begin and end, the marker of an installed upgrade, the
// kept packages and the outcome that survives a restart.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/upgrade/upgrade_run_support.h"

namespace {

using fake::logged;
using fake::loggedError;
using runtest::removedLine;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

class Bookkeeping : public runtest::UpgradeRun {
  protected:
    // As a run has it that flashes what is asked for.
    static void flashing(bool mpu, bool rollback) {
        proc().stage = UPGRADE_STAGE_FLASHING_START;
        proc().state = UPGRADE_STATE_INPROGRESS_MPU;
        proc().upgradeFlag = {false, mpu, false};
        proc().isRollback = rollback;
    }

    static void writeAllFiles() {
        writeFile(UpgradeProc::currentCfg, "current");
        writeFile(UpgradeProc::rollbackCfg, "rollback");
        writeFile(UpgradeProc::currentPkg, "current");
        writeFile(UpgradeProc::rollbackPkg, "rollback");
        writeFile(UpgradeProc::upgradePkg, "upgrade");
        writeFile(UpgradeProc::recvPkg, "received");
    }
};

TEST_F(Bookkeeping, begin_of_a_run_is_logged_and_nothing_else) {
    writeAllFiles();
    proc().onUpgradeBegin();
    EXPECT_TRUE(logged(3, "UpgradeProc::onUpgradeBegin\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_EQ(testsupport::namesIn("/firmware").size(), 4U);
    EXPECT_EQ(testsupport::namesIn("/config").size(), 2U);
}

TEST_F(Bookkeeping, good_end_of_a_run_is_logged_and_keeps_its_values) {
    proc().stage = UPGRADE_STAGE_DONE;
    proc().state = UPGRADE_STATE_FINISH;
    proc().targetVersion = runtest::kNewer;
    proc().upgradeFlag.mpu = true;
    proc().stageTick[UPGRADE_STAGE_DONE] = 5.0;
    proc().onUpgradeEnd(true);
    EXPECT_TRUE(logged(3, "UpgradeProc::onUpgradeEnd [succ]\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_TRUE(proc().upgradeSucc());
    EXPECT_EQ(proc().targetVersion.mpu, runtest::kNewer.mpu);
    EXPECT_TRUE(proc().upgradeFlag.mpu);
    EXPECT_EQ(proc().stageTick[UPGRADE_STAGE_DONE], 5.0);
}

TEST_F(Bookkeeping, bad_end_of_a_run_resets_every_field_and_publishes_idle) {
    UpgradeProc& controller = proc();
    controller.reservedWord = 9;
    controller.running = true;
    controller.giveup = true;
    controller.stage = UPGRADE_STAGE_FLASHING_START;
    controller.state = UPGRADE_STATE_FAIL;
    controller.workPkg = "/firmware/upgrade.pkg";
    controller.inputPkg = "/tmp/input.pkg";
    controller.isRollback = true;
    controller.upgradeFlag = {true, true, true};
    controller.targetVersion = runtest::kNewer;
    controller.currentVersion = runtest::kInstalled;
    controller.activateResult = 7;
    controller.activated = true;
    for (double& tick : controller.stageTick) {
        tick = 1.0;
    }
    controller.onUpgradeEnd(false);
    runtest::expectFieldsReset(controller);
    EXPECT_GT(controller.stageTick[UPGRADE_STAGE_IDLE], 1.0);  // stamped by the publication
    EXPECT_EQ(controller.inputPkg, "/tmp/input.pkg");
    EXPECT_EQ(fake::log().linesAtLevel(3), std::vector<std::string>{"UpgradeProc::onUpgradeEnd [fail]\n"});
    EXPECT_EQ(fake::log().linesAtLevel(2), std::vector<std::string>{runtest::publishedLine("IDLE", "NONE")});
    EXPECT_EQ(fake::node().states(), std::vector<int>{UPGRADE_STATE_NONE});
}

TEST_F(Bookkeeping, bad_end_of_a_run_touches_no_file) {
    writeAllFiles();
    writeFile(runtest::kMarker, "");
    proc().onUpgradeEnd(false);
    EXPECT_EQ(testsupport::namesIn("/firmware").size(), 4U);
    EXPECT_EQ(testsupport::namesIn("/config").size(), 3U);
}

TEST_F(Bookkeeping, marker_is_an_empty_file_that_comes_and_goes) {
    EXPECT_FALSE(UPGRADE_isUpgraded());
    proc().setUpgraded(true);
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_EQ(testsupport::sizeOf(runtest::kMarker), 0);
    proc().setUpgraded(true);
    EXPECT_TRUE(UPGRADE_isUpgraded());
    proc().setUpgraded(false);
    EXPECT_FALSE(UPGRADE_isUpgraded());
    EXPECT_FALSE(exists(runtest::kMarker));
    proc().setUpgraded(false);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(Bookkeeping, begin_of_flashing_clears_marker_and_activation_and_drops_the_rollback_package) {
    writeAllFiles();
    proc().setUpgraded(true);
    proc().setActivated(true);
    proc()._onUpgradeBegin();
    EXPECT_FALSE(UPGRADE_isUpgraded());
    EXPECT_FALSE(proc().activated);
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    EXPECT_EQ(testsupport::namesIn("/firmware"),
              (std::vector<std::string>{"current.pkg", "recv.tar.xz", "upgrade.pkg"}));
    EXPECT_TRUE(logged(3, removedLine(UpgradeProc::rollbackPkg, 0)));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(Bookkeeping, begin_of_flashing_without_a_rollback_package_logs_that_there_is_none) {
    proc()._onUpgradeBegin();
    EXPECT_TRUE(logged(3, removedLine(UpgradeProc::rollbackPkg, -2989)));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Bookkeeping, failing_removal_is_only_logged) {
    writeFile(UpgradeProc::rollbackPkg + "/inside", "a directory in its place");
    proc()._onUpgradeBegin();
    EXPECT_TRUE(logged(3, removedLine(UpgradeProc::rollbackPkg, -1)));
    EXPECT_NE(removedLine(UpgradeProc::rollbackPkg, -1), removedLine(UpgradeProc::rollbackPkg, 0));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Bookkeeping, good_flashing_of_the_mpu_sets_the_marker_and_drops_the_version_file) {
    flashing(true, false);
    writeAllFiles();
    proc()._onUpgradeEnd(true);
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_FALSE(exists(UpgradeProc::currentCfg));
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "rollback");
    EXPECT_EQ(readFile(UpgradeProc::rollbackCfg), "rollback");
    EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_success");
    EXPECT_EQ(fake::log().linesAtLevel(3),
              (std::vector<std::string>{"UpgradeProc::_onUpgradeEnd [succ]\n",
                                        removedLine(UpgradeProc::upgradePkg, 0)}));
    EXPECT_EQ(fake::log().lines().size(), 2U);
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(Bookkeeping, good_flashing_without_the_mpu_sets_no_marker_but_drops_the_version_file) {
    flashing(false, false);
    writeAllFiles();
    proc()._onUpgradeEnd(true);
    EXPECT_FALSE(UPGRADE_isUpgraded());
    EXPECT_FALSE(exists(UpgradeProc::currentCfg));
    EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_success");
}

TEST_F(Bookkeeping, bad_flashing_is_recorded_published_and_keeps_version_file_and_marker) {
    flashing(true, false);
    proc().state = UPGRADE_STATE_INPROGRESS_MCU;
    writeAllFiles();
    proc().setUpgraded(true);
    proc()._onUpgradeEnd(false);
    EXPECT_EQ(readFile(UpgradeProc::currentCfg), "current");
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_failure");
    EXPECT_TRUE(
        loggedError(runtest::kUnit, "_onUpgradeEnd", "upgrade failed! result is INPROGRESS_MCU;\n", 382));
    EXPECT_TRUE(logged(3, "UpgradeProc::_onUpgradeEnd [fail]\n"));
    EXPECT_EQ(proc().state, UPGRADE_STATE_FAIL);
    EXPECT_EQ(proc().stage, UPGRADE_STAGE_FLASHING_START);
    EXPECT_EQ(fake::log().lines().back().text, runtest::publishedLine("FLASHING_START", "FAIL"));
    EXPECT_EQ(fake::node().states(), std::vector<int>{UPGRADE_STATE_FAIL});
}

TEST_F(Bookkeeping, bad_flashing_makes_no_marker) {
    flashing(true, false);
    proc()._onUpgradeEnd(false);
    EXPECT_FALSE(UPGRADE_isUpgraded());
}

TEST_F(Bookkeeping, missing_working_package_is_logged_as_such_and_is_no_error) {
    flashing(true, false);
    proc()._onUpgradeEnd(true);
    EXPECT_TRUE(logged(3, removedLine(UpgradeProc::upgradePkg, -2989)));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Bookkeeping, outcome_of_a_rollback_is_told_apart) {
    flashing(true, true);
    proc()._onUpgradeEnd(true);
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_success");
    proc()._onUpgradeEnd(false);
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_failure");
}

TEST_F(Bookkeeping, run_has_succeeded_only_when_done_and_finished) {
    for (int stage = UPGRADE_STAGE_IDLE; stage <= UPGRADE_STAGE_DONE + 1; ++stage) {
        for (int state = UPGRADE_STATE_NONE; state <= UPGRADE_STATE_FAIL; ++state) {
            proc().stage = stage;
            proc().state = state;
            EXPECT_EQ(proc().upgradeSucc(), stage == UPGRADE_STAGE_DONE && state == UPGRADE_STATE_FINISH)
                << stage << ", " << state;
        }
    }
}

TEST_F(Bookkeeping, success_is_kept_until_the_next_run_resets_it) {
    proc().stage = UPGRADE_STAGE_DONE;
    proc().state = UPGRADE_STATE_FINISH;
    proc().onUpgradeEnd(true);
    EXPECT_TRUE(proc().upgradeSucc());
    EXPECT_EQ(UPGRADE_main_proc_fun("/tmp/no.pkg"), -1);
    EXPECT_FALSE(proc().upgradeSucc());
}

}  // namespace
