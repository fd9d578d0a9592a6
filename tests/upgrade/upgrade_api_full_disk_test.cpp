// Runs on storage that fills up: the package directory has room for 12 MiB, the work area for 10 MiB.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/upgrade/upgrade_run_support.h"

namespace {

using fake::loggedError;
using testsupport::readFile;
using testsupport::writeFile;

constexpr unsigned long kMiB = 1UL << 20;

class FullDisk : public runtest::UpgradeRun {
  protected:
    static int run(unsigned long rootFsBytes) {
        runtest::writePackage(runtest::kInputPackage, runtest::kNewer, rootFsBytes);
        return UPGRADE_main_proc_fun(runtest::kInputPackage);
    }

    static void expectFailedThenGoodWithSpace() {
        EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_failure");
        runtest::expectFieldsReset(proc());
        EXPECT_EQ(run(kMiB), 0) << fake::log();
        EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_success");
    }
};

TEST_F(FullDisk, while_copying_the_package_empties_the_directory) {
    writeFile(UpgradeProc::currentPkg, "current");
    writeFile(UpgradeProc::rollbackPkg, "rollback");
    EXPECT_EQ(run(16 * kMiB), -1);
    EXPECT_TRUE(
        loggedError(runtest::kUnit, "tryCpFile", "cp /tmp/package.pkg -> /firmware/upgrade.pkg fail\n", 92));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
    EXPECT_TRUE(testsupport::namesIn("/firmware").empty());
    expectFailedThenGoodWithSpace();
}

TEST_F(FullDisk, while_unpacking_fails_the_run) {
    writeFile(UpgradeProc::currentPkg, "current");
    EXPECT_EQ(run(11 * kMiB), -1);
    EXPECT_TRUE(fake::loggedStepError("upgrade/upgrade_proc_pkg", "UPGRADE_proc_upgrade_pkg"));
    EXPECT_TRUE(fake::loggedStepError(runtest::kUnit, "_upgrade_proc_fun", 478));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
    EXPECT_TRUE(fake::calls().textsOf("mpu.").empty());
    expectFailedThenGoodWithSpace();
}

TEST_F(FullDisk, while_keeping_the_package_fails_the_run_and_leaves_no_part_of_it) {
    writeFile(UpgradeProc::currentPkg, "current");
    EXPECT_EQ(run(8 * kMiB), -1);
    EXPECT_TRUE(
        loggedError(runtest::kUnit, "tryCpFile", "cp /tmp/package.pkg -> /firmware/rollback.pkg fail\n", 92));
    EXPECT_TRUE(loggedError(runtest::kUnit, "_onUpgradeEnd", "upgrade failed! result is FAIL;\n", 382));
    EXPECT_TRUE(fake::logged(2, runtest::publishedLine("BACKUP_PACKAGE", "FAIL")));
    EXPECT_EQ(testsupport::namesIn("/firmware"), std::vector<std::string>{"current.pkg"});
    EXPECT_FALSE(UPGRADE_isUpgraded());
    expectFailedThenGoodWithSpace();
}

}  // namespace
