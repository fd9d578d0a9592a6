// The run when the decision what to flash is another than today's rule can give: nothing at all, or a
// failure.

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "tests/upgrade/upgrade_run_support.h"

namespace {

std::atomic<int> decisionResult{0};

}  // namespace

// Takes the place of the library's own: nothing is to be flashed.
int UPGRADE_set_upgrade_flag(UPGRADE_FLAG_T& flag, L_VERSION_T current, L_VERSION_T package, bool rollback) {
    (void)current, (void)package, (void)rollback;
    flag = {false, false, false};
    return decisionResult;
}

namespace {

using fake::logged;
using fake::loggedError;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

class Decision : public runtest::UpgradeRun {
  protected:
    static void expectFailedRun() {
        runtest::writePackage(runtest::kInputPackage);
        writeFile(UpgradeProc::rollbackPkg, "rollback");
        writeFile(runtest::kMarker, "");
        EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), -1);
        EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
        EXPECT_FALSE(fake::log().contains("_onUpgradeEnd"));
        EXPECT_FALSE(fake::log().contains("remove "));
        EXPECT_TRUE(fake::calls().textsOf("mpu.").empty());
        EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "rollback");
        EXPECT_TRUE(exists(UpgradeProc::upgradePkg));
        EXPECT_TRUE(exists(runtest::kMarker));
        EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_failure");
        runtest::expectFieldsReset(proc());
    }
};

TEST_F(Decision, to_flash_nothing_fails_the_run_with_state_fail) {
    decisionResult = 0;
    expectFailedRun();
    EXPECT_TRUE(loggedError(runtest::kUnit, "_upgrade_proc_fun", "no need to upgrade anything!\n", 549));
    EXPECT_TRUE(logged(3, "upgrade flag mpu[0], mcu[0], bld[0];\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 2, runtest::publishedLine("FLASHING_START", "FAIL")));
}

TEST_F(Decision, that_fails_fails_the_run_before_flashing) {
    decisionResult = -4;
    expectFailedRun();
    EXPECT_TRUE(fake::loggedStepError(runtest::kUnit, "_upgrade_proc_fun", 512));
    EXPECT_FALSE(fake::log().contains("SET_FLAG_DONE"));
    EXPECT_FALSE(fake::log().contains("[result FAIL]"));
}

}  // namespace
