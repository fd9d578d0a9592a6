// Activation of what was flashed, and rollback to the kept package: in the process of the run, and in one
// that was started since.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/upgrade_run_support.h"

namespace {

std::atomic<unsigned long> flushes{0};

std::function<void(const std::string& path)> onFlush;  // of a single file or directory

}  // namespace

// Takes the place of the C library's for the library under test.
extern "C" __attribute__((visibility("default"))) void sync() noexcept {
    ++flushes;
    syscall(SYS_sync);
}
extern "C" __attribute__((visibility("default"))) int fsync(int file) {
    if (onFlush) {
        onFlush(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)));
    }
    return static_cast<int>(syscall(SYS_fsync, file));
}

namespace {

using fake::logged;
using fake::loggedError;
using runtest::kUnit;
using runtest::removedLine;
using testing::PrintToString;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

constexpr const char* kExchangePath = "/firmware/temp";
constexpr const char* kAlthoughNotSucceeded = "activate when not upgradeSucc, but upgraded!\n";
constexpr const char* kNoSwitchNeeded = "not upgrade mpu, no need execute UPGRADE_activatePartition;\n";
constexpr int kRefused = -2989;

std::string exchangedLine(const std::string& outcome) {
    return "exchange current and rollback, " + outcome + "\n";
}

class Activation : public runtest::UpgradeRun {
  protected:
    // As a successful run in this process leaves it.
    static void succeeded() {
        proc().stage = UPGRADE_STAGE_DONE;
        proc().state = UPGRADE_STATE_FINISH;
        proc().upgradeFlag.mpu = true;
        proc().setUpgraded(true);
        writePackages();
    }

    static void writePackages() {
        writeFile(UpgradeProc::currentPkg, "old");
        writeFile(UpgradeProc::rollbackPkg, "flashed");
    }

    static void expectExchanged() {
        EXPECT_EQ(readFile(UpgradeProc::currentPkg), "flashed");
        EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "old");
        EXPECT_FALSE(exists(kExchangePath));
    }

    static void expectActivated() {
        EXPECT_TRUE(proc().activated);
        EXPECT_FALSE(UPGRADE_isUpgraded());
        EXPECT_EQ(UPGRADE_get_state() == 3, !proc().upgradeSucc());
    }

    static unsigned long switches() { return fake::calls().count("mpu.activate(true)"); }
};

TEST_F(Activation, after_success_switches_the_partition_and_exchanges_the_packages) {
    succeeded();
    writeFile(UpgradeProc::currentCfg, "{}");
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_EQ(switches(), 1U);
    expectExchanged();
    expectActivated();
    EXPECT_FALSE(exists(UpgradeProc::currentCfg));
    EXPECT_EQ(
        fake::log().linesAtLevel(3),
        (std::vector<std::string>{"postActivate: upgrade mode\n", removedLine(UpgradeProc::currentCfg, 0),
                                  exchangedLine("succ"), "UPGRADE_activate: ret 0\n"}));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(2));
}

TEST_F(Activation, publishes_one_message_of_state_5_after_the_file_work) {
    succeeded();
    ASSERT_EQ(UPGRADE_activate(), 0);
    const std::vector<fake::Message> messages = fake::node().messages();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0].word(0), 4197);
    EXPECT_EQ(messages[0].word(1), 12);
    EXPECT_EQ(messages[0].word(2), 2);
    EXPECT_EQ(messages[0].word(3), 5);
    EXPECT_EQ(messages[0].handle, fake::node().handle());
    const std::vector<fake::LogLine> lines = fake::log().lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.back().text, "UPGRADE_activate: ret 0\n");
    EXPECT_GT(lines.back().order, messages[0].order);
    EXPECT_EQ(lines[lines.size() - 2].text, exchangedLine("succ"));
    EXPECT_LT(lines[lines.size() - 2].order, messages[0].order);
    EXPECT_EQ(proc().state, UPGRADE_STATE_FINISH);
}

// What packages are where, and whether the marker is there, each time the directory of the packages is flushed.
std::vector<std::string> flushedStates(const std::function<void()>& work) {
    std::vector<std::string> states;
    onFlush = [&states](const std::string& path) {
        if (path == "/firmware") {
            states.push_back(readFile(UpgradeProc::currentPkg) + (UPGRADE_isUpgraded() ? ", marked" : ""));
        }
    };
    work();
    onFlush = nullptr;
    return states;
}

TEST_F(Activation, exchanged_packages_are_on_storage_before_the_marker_goes) {
    succeeded();
    EXPECT_EQ(flushedStates([] { ASSERT_EQ(UPGRADE_activate(), 0); }),
              std::vector<std::string>{"flashed, marked"});
}

TEST_F(Activation, of_a_rollback_is_on_storage_before_the_marker_goes) {
    succeeded();
    proc().isRollback = true;
    EXPECT_EQ(flushedStates([] { ASSERT_EQ(UPGRADE_activate(), 0); }),
              std::vector<std::string>{"flashed, marked"});
}

TEST_F(Activation, flushes_the_file_system) {
    succeeded();
    const unsigned long before = flushes;
    ASSERT_EQ(UPGRADE_activate(), 0);
    EXPECT_EQ(flushes, before + 1);
}

TEST_F(Activation, again_returns_0_and_touches_nothing) {
    succeeded();
    ASSERT_EQ(UPGRADE_activate(), 0);
    fake::log().clear();
    fake::node().clear();
    proc().setUpgraded(true);
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(2, "activated again;\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(switches(), 1U);
    EXPECT_EQ(fake::node().count(), 0U);
    expectExchanged();
    EXPECT_TRUE(UPGRADE_isUpgraded());
}

TEST_F(Activation, without_anything_flashed_fails) {
    writePackages();
    EXPECT_EQ(UPGRADE_activate(), -1);
    EXPECT_TRUE(
        loggedError(kUnit, "UPGRADE_activate", "UPGRADE_activate: upgrade failed, can't activate\n", 632));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(switches(), 0U);
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "old");
    EXPECT_FALSE(proc().activated);
}

TEST_F(Activation, of_a_marked_upgrade_recovers_its_version_from_the_kept_package) {
    proc().setUpgraded(true);
    writeFile(UpgradeProc::currentPkg, "old");
    runtest::writePackage(UpgradeProc::rollbackPkg);
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, kAlthoughNotSucceeded));
    EXPECT_TRUE(logged(3, "getUpgraded: 1.105.8.3, ret 0\n"));
    EXPECT_EQ(proc().targetVersion.hw, 1);
    EXPECT_EQ(proc().targetVersion.mpu, 105);
    EXPECT_EQ(proc().targetVersion.mcu, 8);
    EXPECT_EQ(proc().targetVersion.bld, 3);
    EXPECT_EQ(switches(), 1U);
    EXPECT_EQ(testsupport::sizeOf(UpgradeProc::currentPkg), 134217728);
    EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "old");
    expectActivated();
    EXPECT_EQ(UPGRADE_get_state(), 3);
    EXPECT_EQ(fake::node().states(), std::vector<int>{5});
}

TEST_F(Activation, marker_that_cannot_be_read_switches_the_partition_all_the_same) {
    succeeded();
    proc().stage = UPGRADE_STAGE_IDLE;
    proc().upgradeFlag.mpu = false;
    {
        const upgradetest::UnansweredPath marker(runtest::kMarker);
        EXPECT_EQ(UPGRADE_activate(), 0);
    }
    EXPECT_EQ(switches(), 1U);
    expectExchanged();
    expectActivated();
}

TEST_F(Activation, of_a_marked_upgrade_works_with_an_unreadable_kept_package) {
    proc().setUpgraded(true);
    writePackages();
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, kAlthoughNotSucceeded));
    EXPECT_FALSE(fake::log().contains("getUpgraded"));
    EXPECT_EQ(proc().targetVersion.mpu, 0);
    expectExchanged();
}

TEST_F(Activation, with_a_failing_switch_changes_nothing) {
    succeeded();
    writeFile(UpgradeProc::currentCfg, "{}");
    fake::mpu().activate.returns(-5);
    EXPECT_EQ(UPGRADE_activate(), -1);
    EXPECT_TRUE(loggedError(kUnit, "activate", "activate: UPGRADE_activatePartition failed!\n", 239));
    EXPECT_EQ(fake::log().linesAtLevel(3), std::vector<std::string>{"UPGRADE_activate: ret -1\n"});
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "old");
    EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "flashed");
    EXPECT_EQ(readFile(UpgradeProc::currentCfg), "{}");
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_FALSE(proc().activated);
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(Activation, can_be_tried_again_after_a_failing_switch) {
    succeeded();
    fake::mpu().activate.returns(-5);
    ASSERT_EQ(UPGRADE_activate(), -1);
    fake::mpu().activate.returns(0);
    EXPECT_EQ(UPGRADE_activate(), 0);
    expectExchanged();
    expectActivated();
}

TEST_F(Activation, positive_answer_of_the_driver_is_success) {
    succeeded();
    fake::mpu().activate.returns(4);
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, "UPGRADE_activate: ret 0\n"));
}

TEST_F(Activation, switch_is_skipped_when_no_mpu_was_flashed) {
    succeeded();
    proc().upgradeFlag.mpu = false;
    proc().setUpgraded(false);
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, kNoSwitchNeeded));
    EXPECT_EQ(switches(), 0U);
    expectExchanged();
    expectActivated();
}

TEST_F(Activation, switch_is_made_for_the_flag_or_for_the_marker) {
    proc().upgradeFlag.mpu = true;
    EXPECT_EQ(proc().activate(), 0);
    EXPECT_EQ(switches(), 1U);
    proc().upgradeFlag.mpu = false;
    proc().setUpgraded(true);
    EXPECT_EQ(proc().activate(), 0);
    EXPECT_EQ(switches(), 2U);
    proc().setUpgraded(false);
    EXPECT_EQ(proc().activate(), 0);
    EXPECT_EQ(switches(), 2U);
    EXPECT_TRUE(logged(3, kNoSwitchNeeded));
}

TEST_F(Activation, hook_before_it_does_nothing) {
    proc().preActivate();
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(Activation, file_work_of_a_failed_one_does_nothing) {
    succeeded();
    const unsigned long before = flushes;
    proc().postActivate(false);
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "old");
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_FALSE(proc().activated);
    EXPECT_EQ(flushes, before);
}

TEST_F(Activation, missing_version_file_is_logged_as_such) {
    succeeded();
    proc().postActivate(true);
    EXPECT_TRUE(logged(3, removedLine(UpgradeProc::currentCfg, kRefused)));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(Activation, missing_current_package_fails_the_exchange_and_the_flashed_one_still_becomes_current) {
    succeeded();
    std::filesystem::remove(UpgradeProc::currentPkg);
    proc().postActivate(true);
    EXPECT_TRUE(logged(3, exchangedLine("fail")));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "flashed");
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    expectActivated();
}

TEST_F(Activation, missing_flashed_package_fails_the_exchange_and_the_others_are_still_renamed) {
    succeeded();
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    proc().postActivate(true);
    EXPECT_TRUE(logged(3, exchangedLine("fail")));
    EXPECT_FALSE(exists(UpgradeProc::currentPkg));
    EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "old");
    EXPECT_FALSE(exists(kExchangePath));
    expectActivated();
}

TEST_F(Activation, failing_exchange_does_not_fail_it) {
    succeeded();
    std::filesystem::remove(UpgradeProc::currentPkg);
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, exchangedLine("fail")));
    EXPECT_EQ(fake::node().states(), std::vector<int>{5});
    expectActivated();
}

TEST_F(Activation, of_a_rollback_makes_the_rollback_package_current) {
    succeeded();
    proc().isRollback = true;
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, "postActivate: rollback mode\n"));
    EXPECT_TRUE(logged(3, "rollback(/firmware/rollback.pkg) -> current, succ\n"));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "flashed");
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    EXPECT_FALSE(exists(kExchangePath));
    expectActivated();
}

TEST_F(Activation, of_a_rollback_without_its_package_takes_the_run_s_input) {
    succeeded();
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::recvPkg, "received");
    proc().isRollback = true;
    proc().inputPkg = UpgradeProc::recvPkg;
    proc().postActivate(true);
    EXPECT_TRUE(logged(3, "rollback(/firmware/recv.tar.xz) -> current, succ\n"));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "received");
    EXPECT_FALSE(exists(UpgradeProc::recvPkg));
}

TEST_F(Activation, of_a_rollback_with_no_package_at_all_logs_that_and_goes_on) {
    succeeded();
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    proc().isRollback = true;
    proc().inputPkg = "/tmp/gone.pkg";
    EXPECT_EQ(UPGRADE_activate(), 0);
    EXPECT_TRUE(logged(3, "rollback(/tmp/gone.pkg) -> current, fail\n"));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "old");
    expectActivated();
}

TEST_F(Activation, upgrade_awaiting_it_is_known_by_marker_and_package) {
    L_VERSION_T version = runtest::kInstalled;
    runtest::writePackage(UpgradeProc::rollbackPkg);
    EXPECT_FALSE(proc().getUpgraded(version));
    EXPECT_EQ(version.mpu, runtest::kInstalled.mpu);
    EXPECT_TRUE(fake::nothingLogged());
    proc().setUpgraded(true);
    EXPECT_TRUE(proc().getUpgraded(version));
    EXPECT_EQ(version.mpu, runtest::kNewer.mpu);
    EXPECT_TRUE(logged(3, "getUpgraded: 1.105.8.3, ret 0\n"));
    version = runtest::kInstalled;
    writeFile(UpgradeProc::rollbackPkg, "no package");
    EXPECT_FALSE(proc().getUpgraded(version));
    EXPECT_EQ(version.mpu, runtest::kInstalled.mpu);
}

TEST_F(Activation, reset_request_passes_the_answer_on) {
    for (const int answer : {0, 3, -7}) {
        fake::reboot().returns(answer);
        EXPECT_EQ(UPGRADE_request_mcu_reset_mpu(), answer);
    }
    EXPECT_EQ(fake::calls().count("reboot()"), 3U);
}

// ---------------------------------------------------------------------------------------------------------------------

class Rollback : public Activation {
  protected:
    static void expectRefused(const std::string& message, int line) {
        EXPECT_EQ(UPGRADE_rollback_mpu(), kRefused);
        EXPECT_TRUE(loggedError(kUnit, "UPGRADE_rollback_mpu", message, line));
        EXPECT_EQ(fake::countErrors(kUnit, "UPGRADE_rollback_mpu", message), 1U);
        EXPECT_EQ(switches(), 0U);
        EXPECT_EQ(fake::node().count(), 0U);
        EXPECT_FALSE(UPGRADE_isUpgraded());
        EXPECT_FALSE(proc().isRollback);
        EXPECT_FALSE(exists(UpgradeProc::recvPkg));
        EXPECT_FALSE(exists(runtest::kLastRuntime));
    }

    static void expectRolledBackAtOnce() {
        EXPECT_EQ(UPGRADE_rollback_mpu(), 0) << fake::log();
        EXPECT_EQ(switches(), 1U);
        EXPECT_TRUE(fake::calls().textsOf("mpu.upgrade").empty());
        EXPECT_TRUE(logged(3, "rollback(/firmware/rollback.pkg) -> current, succ\n"));
        EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
        EXPECT_FALSE(exists(UpgradeProc::recvPkg));
        EXPECT_FALSE(exists(runtest::kLastRuntime));
        EXPECT_EQ(testsupport::sizeOf(UpgradeProc::currentPkg), 134217728);
        EXPECT_EQ(fake::node().states(), std::vector<int>{5});
        expectActivated();
    }

    // The kept package, of a software that is older in everything.
    static testsupport::TestPackage older() { return runtest::packageOf({1, 100, 6, 1}); }
};

TEST_F(Rollback, without_a_package_is_refused) {
    expectRefused("rollbackPkg not exist;\n", 657);
    EXPECT_EQ(fake::log().lines().size(), 1U);
}

TEST_F(Rollback, to_a_package_of_a_byte_less_is_refused) {
    older().setTotalSize(134217727).writeTo(UpgradeProc::rollbackPkg);
    expectRefused("rollback.pkg size error!\n", 662);
}

TEST_F(Rollback, to_a_package_of_a_byte_more_is_refused) {
    older().setTotalSize(134217729).writeTo(UpgradeProc::rollbackPkg);
    expectRefused("rollback.pkg size error!\n", 662);
}

TEST_F(Rollback, to_a_package_with_an_unreadable_trailer_is_refused) {
    testsupport::writeSparse(UpgradeProc::rollbackPkg, 134217728);
    expectRefused("rollback.pkg pkgInfo error!\n", 668);
}

TEST_F(Rollback, with_the_microcontroller_at_the_package_s_version_only_activates) {
    runtest::packageOf({9, 100, 6, 9}).writeTo(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::currentPkg, "current");
    fake::mcuVersion().returns(6);
    expectRolledBackAtOnce();
    EXPECT_TRUE(logged(3, "updateMcuVersion: ver 6;\n"));
    EXPECT_TRUE(logged(3, kAlthoughNotSucceeded));
    EXPECT_TRUE(logged(3, "postActivate: rollback mode\n"));
    EXPECT_TRUE(proc().isRollback);
}

TEST_F(Rollback, goes_by_the_recorded_version_when_the_microcontroller_is_silent) {
    older().writeTo(UpgradeProc::rollbackPkg);
    testsupport::writeVersions(UpgradeProc::currentCfg, {1, 104, 6, 2});
    expectRolledBackAtOnce();
}

TEST_F(Rollback, that_needs_no_run_is_taken_for_done_after_an_activation_in_this_process) {
    older().writeTo(UpgradeProc::rollbackPkg);
    fake::mcuVersion().returns(6);
    proc().setActivated(true);
    EXPECT_EQ(UPGRADE_rollback_mpu(), 0);
    EXPECT_TRUE(logged(2, "activated again;\n"));
    EXPECT_EQ(switches(), 0U);
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
    // The next process finds the marker and makes the switch.
    EXPECT_TRUE(UPGRADE_isUpgraded());
}

TEST_F(Rollback, with_a_failing_switch_fails_and_keeps_the_package) {
    older().writeTo(UpgradeProc::rollbackPkg);
    fake::mcuVersion().returns(6);
    fake::mpu().activate.returns(-1);
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
    EXPECT_FALSE(proc().activated);
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(Rollback, to_another_version_of_the_microcontroller_is_a_whole_run) {
    older().writeTo(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::currentPkg, "current");
    fake::mcuVersion().returns(7);
    ASSERT_EQ(UPGRADE_rollback_mpu(), 0) << fake::log();
    EXPECT_TRUE(logged(3, runtest::copiedLine(UpgradeProc::rollbackPkg, UpgradeProc::recvPkg)));
    EXPECT_TRUE(logged(3, runtest::copiedLine(UpgradeProc::recvPkg, UpgradeProc::upgradePkg)));
    EXPECT_TRUE(logged(3, "trying [rollback]: hw[1->1], mpu[104->100], mcu[7->6], bld[2->1];\n"));
    EXPECT_EQ(fake::calls().textsOf("mpu."),
              (std::vector<std::string>{"mpu.preUpgrade(/raw/upgrade, true, true)", "mpu.upgrade()",
                                        "mpu.postUpgrade()", "mpu.activate(true)"}));
    EXPECT_EQ(fake::calls().textsOf("mcu."),
              (std::vector<std::string>{"mcu.preUpgrade(/raw/upgrade, true, false)", "mcu.upgrade()",
                                        "mcu.postUpgrade()"}));
    EXPECT_TRUE(logged(3, "postActivate: rollback mode\n"));
    EXPECT_TRUE(logged(3, "rollback(/firmware/rollback.pkg) -> current, succ\n"));
    EXPECT_FALSE(fake::log().contains("but upgraded!"));
    EXPECT_EQ(testsupport::sizeOf(UpgradeProc::currentPkg), 134217728);
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    EXPECT_TRUE(exists(UpgradeProc::recvPkg));
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_success");
    EXPECT_EQ(fake::node().states().back(), 5);
    expectActivated();
}

TEST_F(Rollback, run_does_not_verify_the_signatures) {
    older().corruptSignature("ext4").writeTo(UpgradeProc::rollbackPkg);
    EXPECT_EQ(UPGRADE_rollback_mpu(), 0) << fake::log();
    EXPECT_FALSE(fake::log().contains("UPGRADE_verify_signature"));
    EXPECT_TRUE(logged(2, runtest::publishedLine("VERIFY_PKG_DONE", "INPROGRESS_MPU")));
}

TEST_F(Rollback, run_still_checks_the_md5) {
    older().flipPayloadByte(600).writeTo(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::currentPkg, "current");
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "_upgrade_proc_fun", 478));
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_failure");
    EXPECT_EQ(switches(), 0U);
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
}

TEST_F(Rollback, given_up_keeps_both_packages) {
    older().writeTo(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::currentPkg, "current");
    const runtest::Recorder recorder([](const runtest::Recorder::Event& event) {
        if (event.text == "chkFileMd5") {
            UPGRADE_set_giveup_upgrade_flag();
        }
    });
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), 1);
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_failure");
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
    EXPECT_EQ(switches(), 0U);
    runtest::expectFieldsReset(proc());
}

TEST_F(Rollback, failing_in_flashing_returns_the_run_s_result_and_is_not_activated) {
    older().writeTo(UpgradeProc::rollbackPkg);
    fake::mpu().upgrade.returns(-1);
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_failure");
    EXPECT_EQ(switches(), 0U);
    EXPECT_FALSE(proc().activated);
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    EXPECT_TRUE(exists(UpgradeProc::recvPkg));
}

TEST_F(Rollback, goes_on_after_a_failing_copy_and_fails_in_the_run) {
    older().writeTo(UpgradeProc::rollbackPkg);
    std::filesystem::create_directory(UpgradeProc::recvPkg);
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    EXPECT_TRUE(
        loggedError(kUnit, "tryCpFile", "cp /firmware/rollback.pkg -> /firmware/recv.tar.xz fail\n", 92));
    EXPECT_TRUE(fake::log().contains("func:init line:192 input file(/firmware/recv.tar.xz) size is "));
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_failure");
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
}

TEST_F(Rollback, without_factory_versions_is_a_whole_run) {
    older().writeTo(UpgradeProc::rollbackPkg);
    std::filesystem::remove(runtest::kFactoryVersions);
    EXPECT_EQ(UPGRADE_rollback_mpu(), 0) << fake::log();
    EXPECT_TRUE(fake::loggedStepError(kUnit, "getCurrentVersion"));
    EXPECT_TRUE(logged(3, "trying [rollback]: hw[0->1], mpu[0->100], mcu[0->6], bld[0->1];\n"));
}

// ---------------------------------------------------------------------------------------------------------------------

// The life of a device: upgrade, activation and rollback, in one process or with restarts in between.
class Life : public Activation {
  protected:
    void SetUp() override {
        UpgradeRun::SetUp();
        runtest::packageOf({1, 100, 6, 1}).writeTo(UpgradeProc::currentPkg);
        runtest::writePackage(runtest::kInputPackage);
    }

    static int mcuVersionOf(const std::string& package) {
        _UPGRADE_PKG_T info;
        return read_info_form_pkg(info, package) == 0 ? info.version.mcu : -1;
    }

    // Runs the steps in a process of their own and gives its output.
    static std::string steps(const std::string& arguments) {
        const std::string command = std::string(UPGRADE_STEPS) + " " + arguments + " 2>&1";
        FILE* output = popen(command.c_str(), "re");
        if (output == nullptr) {
            ADD_FAILURE() << "cannot run " << command;
            return {};
        }
        std::string text;
        char block[4096];
        for (size_t count = 0; (count = fread(block, 1, sizeof block, output)) != 0;) {
            text.append(block, count);
        }
        EXPECT_EQ(pclose(output), 0) << text;
        return text;
    }

    static testing::AssertionResult has(const std::string& output, const std::string& part) {
        return output.find(part) != std::string::npos ? testing::AssertionSuccess()
                                                      : testing::AssertionFailure()
                                                            << "no " << PrintToString(part) << " in\n"
                                                            << output;
    }
};

TEST_F(Life, upgrade_activation_and_rollback_in_one_process) {
    ASSERT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), 0) << fake::log();
    EXPECT_EQ(UPGRADE_get_state(), 2);
    ASSERT_EQ(UPGRADE_activate(), 0);
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 8);
    EXPECT_EQ(mcuVersionOf(UpgradeProc::rollbackPkg), 6);
    fake::mcuVersion().returns(8);
    ASSERT_EQ(UPGRADE_rollback_mpu(), 0) << fake::log();
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 6);
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
    EXPECT_EQ(switches(), 2U);
    EXPECT_EQ(readFile(runtest::kLastRuntime), "rollback_success");
}

TEST_F(Life, upgrade_activation_and_rollback_each_after_a_restart) {
    const std::string run = steps("mcu=7 run=/tmp/package.pkg state");
    EXPECT_TRUE(has(run, "run=/tmp/package.pkg: 0\n"));
    EXPECT_TRUE(has(run, "state: 2\n"));
    EXPECT_EQ(mcuVersionOf(UpgradeProc::rollbackPkg), 8);

    const std::string activation = steps("mcu=8 state last last activate state");
    EXPECT_TRUE(has(activation, "state: 2\nlast: 1\nlast: 0\nactivate: 0\nstate: 3\n"));
    EXPECT_TRUE(has(activation, "log 3 activate when not upgradeSucc, but upgraded!\n"));
    EXPECT_TRUE(has(activation, "log 3 getUpgraded: 1.105.8.3, ret 0\n"));
    EXPECT_TRUE(has(activation, "call mpu.activate(true)\n"));
    EXPECT_TRUE(has(activation, "publish 5\n"));
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 8);
    EXPECT_EQ(mcuVersionOf(UpgradeProc::rollbackPkg), 6);

    const std::string rollback = steps("mcu=8 state rollback last state");
    EXPECT_TRUE(has(rollback, "state: 0\nrollback: 0\nlast: 3\n"));
    EXPECT_TRUE(has(rollback, "call mpu.activate(true)\n"));
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 6);
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));

    EXPECT_TRUE(has(steps("state activate rollback"), "state: 0\nactivate: -1\nrollback: -2989\n"));
}

TEST_F(Life, failed_switch_can_be_made_good_after_a_restart) {
    const std::string run = steps("mcu=7 run=/tmp/package.pkg fail=activate activate");
    EXPECT_TRUE(has(run, "run=/tmp/package.pkg: 0\nactivate: -1\n"));
    EXPECT_TRUE(has(steps("activate"), "activate: 0\n"));
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 8);
}

TEST_F(Life, failed_run_is_known_after_a_restart_and_leaves_nothing_to_activate) {
    const std::string run = steps("mcu=7 fail=upgrade run=/tmp/package.pkg state");
    EXPECT_TRUE(has(run, "run=/tmp/package.pkg: -1\nstate: 0\n"));
    EXPECT_TRUE(has(steps("last activate"), "last: 2\nactivate: -1\n"));
    EXPECT_EQ(mcuVersionOf(UpgradeProc::currentPkg), 6);
}

TEST_F(Life, process_that_exits_right_after_a_failed_run_ends_well) {
    EXPECT_EQ(steps("run=/tmp/none.pkg exit"), "run=/tmp/none.pkg: -1\n");
    runtest::packageOf(runtest::kNewer).flipPayloadByte(600).writeTo("/tmp/damaged.pkg");
    EXPECT_TRUE(has(steps("run=/tmp/damaged.pkg exit"), "run=/tmp/damaged.pkg: -1\n"));
    EXPECT_TRUE(has(steps("fail=upgrade run=/tmp/package.pkg exit"), "run=/tmp/package.pkg: -1\n"));
    EXPECT_TRUE(has(steps("giveup run=/tmp/package.pkg exit"), "run=/tmp/package.pkg: -1\n"));
}

}  // namespace
