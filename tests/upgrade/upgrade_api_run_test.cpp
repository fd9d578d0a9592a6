// The upgrade run: what it logs, publishes and leaves behind, step by step, in success and in every failure.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/short_second.h"
#include "tests/upgrade/upgrade_run_support.h"

namespace {

using fake::logged;
using fake::loggedError;
using fake::loggedStepError;
using fake::notLogged;
using runtest::kInputPackage;
using runtest::kUnit;
using runtest::publishedLine;
using runtest::Recorder;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

constexpr const char* kSequence = "_upgrade_proc_fun";
constexpr const char* kOriginal = "/tmp/original.pkg";
constexpr int kGivenUp = 1;
constexpr int kTooLate = 2;

std::string textOf(const std::string& logLine) {
    return logLine.substr(0, logLine.size() - 1);
}

// The two records that publishing leaves: the line and the message.
void addPublication(std::vector<std::string>& records, const std::string& stage, const std::string& state,
                    int number) {
    records.push_back("2 " + textOf(publishedLine(stage, state)));
    records.push_back("publish " + std::to_string(number));
}

bool sameContent(const std::string& one, const std::string& other) {
    return std::system(("cmp -s " + one + " " + other).c_str()) == 0;
}

void copyAside() {
    ASSERT_EQ(std::system((std::string("cp ") + kInputPackage + " " + kOriginal).c_str()), 0);
}

// The positions of the parts' first lines must grow.
void expectInOrder(const std::vector<std::string>& parts) {
    unsigned long last = 0;
    for (const std::string& part : parts) {
        const std::vector<fake::LogLine> lines = fake::log().lines();
        const auto found = std::find_if(lines.begin(), lines.end(), [&](const fake::LogLine& line) {
            return line.order > last && line.text.find(part) != std::string::npos;
        });
        ASSERT_NE(found, lines.end()) << part << " is missing or out of order in\n" << fake::log();
        last = found->order;
    }
}

class Run : public runtest::UpgradeRun {
  protected:
    static int run(const std::string& package = kInputPackage) { return UPGRADE_main_proc_fun(package); }

    // As every failed run ends.
    static void expectFailed(const std::string& lastRuntime = "upgrade_failure") {
        runtest::expectFieldsReset(proc());
        EXPECT_EQ(readFile(runtest::kLastRuntime), lastRuntime);
        EXPECT_TRUE(logged(3, "UpgradeProc::onUpgradeEnd [fail]\n"));
        ASSERT_FALSE(fake::log().lines().empty());
        EXPECT_EQ(fake::log().lines().back().text, publishedLine("IDLE", "NONE"));
        EXPECT_EQ(fake::node().states().back(), UPGRADE_STATE_NONE);
        EXPECT_EQ(UPGRADE_get_state(), UPGRADE_isUpgraded() ? 2 : 0);
    }

    // Files that only flashing may touch.
    static void writeKeptFiles() {
        writeFile(UpgradeProc::currentPkg, "current");
        writeFile(UpgradeProc::rollbackPkg, "rollback");
        testsupport::writeVersions(UpgradeProc::currentCfg, runtest::kInstalled);
        writeFile(runtest::kMarker, "");
    }
    static void expectKeptFiles() {
        EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
        EXPECT_EQ(readFile(UpgradeProc::rollbackPkg), "rollback");
        EXPECT_TRUE(exists(UpgradeProc::currentCfg));
        EXPECT_TRUE(exists(runtest::kMarker));
    }

    static void expectNoFlashing() {
        EXPECT_TRUE(fake::calls().textsOf("mpu.").empty());
        EXPECT_TRUE(fake::calls().textsOf("mcu.").empty());
        EXPECT_TRUE(fake::calls().textsOf("spi").empty());
        EXPECT_FALSE(fake::log().contains("FLASHING_START"));
        EXPECT_FALSE(fake::log().contains("_onUpgradeEnd"));
        EXPECT_TRUE(notLogged(3, runtest::removedLine(UpgradeProc::rollbackPkg, 0)));
    }
};

// ---------------------------------------------------------------------------------------------------------------------
// Success
// ---------------------------------------------------------------------------------------------------------------------

TEST_F(Run, worker_logs_and_publishes_every_step_in_order) {
    runtest::writePackage(kInputPackage);
    fake::mcuVersion().returns(7);
    const Recorder recorder;
    ASSERT_EQ(run(), 0) << fake::log();
    std::vector<std::string> expected{"3 cp /tmp/package.pkg -> /firmware/upgrade.pkg succ"};
    addPublication(expected, "INIT", "START", 1);
    addPublication(expected, "INIT", "INPROGRESS_MPU", 2);
    addPublication(expected, "START", "INPROGRESS_MPU", 2);
    for (const char* line : {"3 read_info_form_pkg", "3 truncate_upgrade_pkg", "3 chkFileMd5",
                             "3 unpack_upgrade_package", "3 UPGRADE_proc_upgrade_pkg: get version 1.105.8.3",
                             "3 trying [upgrade]: hw[1->1], mpu[104->105], mcu[7->8], bld[2->3];"}) {
        expected.emplace_back(line);
    }
    addPublication(expected, "PROC_PKG_DONE", "INPROGRESS_MPU", 2);
    addPublication(expected, "VERIFY_PKG_DONE", "INPROGRESS_MPU", 2);
    expected.emplace_back("3 upgrade flag mpu[1], mcu[1], bld[1];");
    addPublication(expected, "SET_FLAG_DONE", "INPROGRESS_MPU", 2);
    addPublication(expected, "FLASHING_START", "INPROGRESS_MPU", 2);
    expected.push_back("3 " + textOf(runtest::removedLine(UpgradeProc::rollbackPkg, -2989)));
    addPublication(expected, "BACKUP_PACKAGE", "INPROGRESS_MCU", 3);
    expected.emplace_back("3 cp /tmp/package.pkg -> /firmware/rollback.pkg succ");
    addPublication(expected, "BACKUP_PACKAGE", "FINISH", 4);
    addPublication(expected, "DONE", "FINISH", 4);
    expected.emplace_back("3 UpgradeProc::_onUpgradeEnd [succ]");
    expected.push_back("3 " + textOf(runtest::removedLine(UpgradeProc::upgradePkg, 0)));
    EXPECT_EQ(recorder.ofThread(recorder.worker()), expected);
}

TEST_F(Run, caller_logs_and_publishes_its_begin_and_end_in_order) {
    runtest::writePackage(kInputPackage);
    fake::mcuVersion().returns(7);
    const Recorder recorder;
    ASSERT_EQ(run(), 0) << fake::log();
    std::vector<std::string> expected;
    addPublication(expected, "IDLE", "NONE", 0);
    expected.emplace_back("3 UpgradeProc::onUpgradeBegin");
    addPublication(expected, "INIT", "NONE", 0);
    expected.emplace_back("3 config_path '/config/upgrade_config.json' not exist!");
    expected.emplace_back("3 updateMcuVersion: ver 7;");
    expected.emplace_back("3 UpgradeProc::onUpgradeEnd [succ]");
    EXPECT_EQ(recorder.ofThread(gettid()), expected);
}

TEST_F(Run, every_message_carries_the_same_words_before_the_state) {
    runtest::writePackage(kInputPackage);
    ASSERT_EQ(run(), 0) << fake::log();
    for (const fake::Message& message : fake::node().messages()) {
        EXPECT_EQ(message.word(0), 4197);
        EXPECT_EQ(message.word(1), 12);
        EXPECT_EQ(message.word(2), 2);
        EXPECT_EQ(message.handle, fake::node().handle());
    }
}

TEST_F(Run, works_without_a_message_node) {
    proc().node = nullptr;
    runtest::writePackage(kInputPackage);
    EXPECT_EQ(run(), 0) << fake::log();
    for (const fake::Message& message : fake::node().messages()) {
        EXPECT_EQ(message.handle, nullptr);
    }
}

TEST_F(Run, success_leaves_package_marker_and_outcome) {
    runtest::writePackage(kInputPackage);
    copyAside();
    writeKeptFiles();
    std::filesystem::remove(runtest::kMarker);
    ASSERT_EQ(run(), 0) << fake::log();
    EXPECT_TRUE(sameContent(kInputPackage, kOriginal));
    EXPECT_TRUE(sameContent(kInputPackage, UpgradeProc::rollbackPkg));
    EXPECT_EQ(testsupport::namesIn("/firmware"), (std::vector<std::string>{"current.pkg", "rollback.pkg"}));
    EXPECT_EQ(testsupport::namesIn("/config"),
              (std::vector<std::string>{"upgrade_last_runtime", "upgraded"}));
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
    EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_success");
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_EQ(testsupport::namesIn("/raw/upgrade").size(), 14U);
    EXPECT_EQ(UPGRADE_get_state(), 2);
}

TEST_F(Run, success_keeps_its_values_for_later_queries) {
    runtest::writePackage(kInputPackage);
    fake::mcuVersion().returns(7);
    ASSERT_EQ(run(), 0) << fake::log();
    EXPECT_TRUE(proc().upgradeSucc());
    EXPECT_FALSE(proc().running);
    EXPECT_EQ(proc().inputPkg, kInputPackage);
    EXPECT_EQ(proc().workPkg, UpgradeProc::upgradePkg);
    EXPECT_FALSE(proc().isRollback);
    EXPECT_TRUE(proc().upgradeFlag.mpu && proc().upgradeFlag.mcu && proc().upgradeFlag.bld);
    EXPECT_EQ(proc().targetVersion.mpu, 105);
    EXPECT_EQ(proc().currentVersion.mpu, 104);
    EXPECT_EQ(proc().currentVersion.mcu, 7);
    EXPECT_EQ(proc().activateResult, -1);
    EXPECT_FALSE(proc().activated);
    for (int stage = UPGRADE_STAGE_INIT; stage < UpgradeProc::kStageCount; ++stage) {
        EXPECT_GE(proc().stageTick[stage], proc().stageTick[stage - 1]) << stage;
        EXPECT_GT(proc().stageTick[stage], 0.0) << stage;
    }
    EXPECT_EQ(UPGRADE_get_progress(), 100);
}

TEST_F(Run, flashes_from_the_unpacked_package_what_differs) {
    runtest::packageOf({9, 104, 7, 2}).writeTo(kInputPackage);
    fake::mcuVersion().returns(7);
    ASSERT_EQ(run(), 0) << fake::log();
    EXPECT_TRUE(logged(3, "upgrade flag mpu[1], mcu[0], bld[0];\n"));
    EXPECT_EQ(fake::calls().textsOf("mpu."),
              (std::vector<std::string>{"mpu.preUpgrade(/raw/upgrade, false, true)", "mpu.upgrade()",
                                        "mpu.postUpgrade()"}));
    EXPECT_TRUE(fake::calls().textsOf("mcu.").empty());
    EXPECT_TRUE(logged(2, publishedLine("DONE", "FINISH")));
}

TEST_F(Run, after_a_success_and_after_a_failure_succeeds_in_the_same_process) {
    runtest::writePackage(kInputPackage);
    const runtest::ProcessState before;
    ASSERT_EQ(run(), 0) << fake::log();
    before.expectUnchanged();
    ASSERT_EQ(run("/tmp/none.pkg"), -1);
    before.expectUnchanged();
    EXPECT_EQ(run(), 0) << fake::log();
    before.expectUnchanged();
    EXPECT_TRUE(proc().upgradeSucc());
    EXPECT_TRUE(logged(3, runtest::removedLine(UpgradeProc::rollbackPkg, 0)));
}

TEST_F(Run, wipes_what_an_earlier_one_unpacked) {
    writeFile("/raw/upgrade/leftover", "x");
    writeFile("/raw/other/leftover", "x");
    runtest::writePackage(kInputPackage);
    ASSERT_EQ(run(), 0) << fake::log();
    EXPECT_EQ(testsupport::namesIn("/raw"), std::vector<std::string>{"upgrade"});
    EXPECT_FALSE(exists("/raw/upgrade/leftover"));
}

TEST_F(Run, state_is_republished_while_it_lasts) {
    runtest::writePackage(kInputPackage);
    constexpr unsigned long kLeastSeconds = 4;
    constexpr double kPauseMs = 200;
    pid_t republisher = 0;
    std::vector<std::string> states;
    const double start = runtest::nowMs();
    {
        const Recorder recorder;
        ASSERT_EQ(run(), 0) << fake::log();
        republisher = recorder.republisher();
        states = recorder.messagesOfThread(republisher);
    }
    ASSERT_NE(republisher, 0);
    EXPECT_NE(republisher, gettid());
    EXPECT_GE(states.size(), kLeastSeconds);
    EXPECT_LE(static_cast<double>(states.size()), (runtest::nowMs() - start) / kPauseMs + 1);
    EXPECT_TRUE(std::is_sorted(states.begin(), states.end())) << testing::PrintToString(states);
    EXPECT_EQ(states.front(), "publish 0");
}

TEST_F(Run, caller_returns_a_second_after_the_worker_at_the_earliest) {
    runtest::writePackage(kInputPackage);
    std::atomic<double> workerEnd{0};
    const Recorder recorder([&](const Recorder::Event& event) {
        if (event.text.find("remove /firmware/upgrade.pkg") == 0) {
            workerEnd = runtest::nowMs();
        }
    });
    ASSERT_EQ(run(), 0) << fake::log();
    ASSERT_GT(workerEnd, 0);
    EXPECT_GE(runtest::nowMs() - workerEnd, runtest::kShortSecondMs);
}

// ---------------------------------------------------------------------------------------------------------------------
// Failure
// ---------------------------------------------------------------------------------------------------------------------

class RunRefusing : public Run {
  protected:
    static void expectRefused(const std::string& path, const std::string& message) {
        writeKeptFiles();
        const runtest::ProcessState before;
        const Recorder recorder;
        EXPECT_EQ(run(path), -1);
        before.expectUnchanged();
        EXPECT_TRUE(loggedError(kUnit, "init", message, 192));
        EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
        EXPECT_EQ(recorder.worker(), 0);
        EXPECT_EQ(recorder.republisher(), 0) << "a thread was started";
        EXPECT_EQ(fake::node().states(), (std::vector<int>{0, 0, 0}));
        EXPECT_EQ(proc().inputPkg, path);
        expectNoFlashing();
        expectKeptFiles();
        expectFailed();
    }
};

TEST_F(RunRefusing, a_package_of_a_byte_less) {
    runtest::packageOf(runtest::kNewer).setTotalSize(134217727).writeTo(kInputPackage);
    expectRefused(kInputPackage, "input file(/tmp/package.pkg) size is 134217727/134217728(expect);\n");
}

TEST_F(RunRefusing, a_package_of_a_byte_more) {
    runtest::packageOf(runtest::kNewer).setTotalSize(134217729).writeTo(kInputPackage);
    expectRefused(kInputPackage, "input file(/tmp/package.pkg) size is 134217729/134217728(expect);\n");
}

TEST_F(RunRefusing, a_package_that_is_not_there) {
    const long size = COMMON_YR::getFileSize("/tmp/none.pkg");
    EXPECT_LT(size, 0);
    expectRefused("/tmp/none.pkg",
                  "input file(/tmp/none.pkg) size is " + std::to_string(size) + "/134217728(expect);\n");
}

TEST_F(Run, without_a_work_area_fails_without_a_word) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    runtest::shadowCommand("mkdir", "exit 1\n");
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
    EXPECT_FALSE(fake::log().contains("upgrade.pkg"));
    expectNoFlashing();
    expectKeptFiles();
    expectFailed();
}

TEST_F(Run, failing_copy_empties_the_package_directory) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    writeFile(UpgradeProc::recvPkg, "received");
    writeFile(UpgradeProc::upgradePkg + "/inside", "a directory in its place");
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedError(kUnit, "tryCpFile", "cp /tmp/package.pkg -> /firmware/upgrade.pkg fail\n", 92));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
    EXPECT_TRUE(testsupport::namesIn("/firmware").empty());
    EXPECT_TRUE(exists(UpgradeProc::currentCfg));
    EXPECT_TRUE(exists(runtest::kMarker));
    EXPECT_FALSE(fake::log().contains("[result START]"));
    expectNoFlashing();
    expectFailed();
    EXPECT_EQ(run(), 0) << fake::log();
}

TEST_F(Run, copy_about_which_storage_gives_no_answer_fails) {
    runtest::writePackage(kInputPackage);
    const upgradetest::UnansweredPath unanswered(UpgradeProc::upgradePkg);
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 467));
    expectNoFlashing();
}

TEST_F(Run, copy_that_vanishes_fails) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    const Recorder recorder([](const Recorder::Event& event) {
        if (event.isMessage && event.text == "publish 1") {
            unlink(UpgradeProc::upgradePkg.c_str());
        }
    });
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 467));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 1U);
    expectInOrder({"[stage INIT], [result START]", "line:467", "onUpgradeEnd [fail]", "[stage IDLE]"});
    EXPECT_FALSE(fake::log().contains("INPROGRESS_MPU"));
    expectNoFlashing();
    expectKeptFiles();
    expectFailed();
}

TEST_F(Run, package_that_cannot_be_processed_fails) {
    runtest::packageOf(runtest::kNewer).flipPayloadByte(600).writeTo(kInputPackage);
    writeKeptFiles();
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError("upgrade/upgrade_proc_pkg", "UPGRADE_proc_upgrade_pkg"));
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 478));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
    EXPECT_FALSE(fake::log().contains("PROC_PKG_DONE"));
    EXPECT_FALSE(fake::log().contains("trying ["));
    // Its working copy stays, cut to its payload.
    EXPECT_LT(testsupport::sizeOf(UpgradeProc::upgradePkg), 134217728);
    expectNoFlashing();
    expectKeptFiles();
    expectFailed();
}

TEST_F(Run, package_with_an_unreadable_trailer_fails) {
    testsupport::writeSparse(kInputPackage, 134217728);
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 478));
    EXPECT_EQ(testsupport::sizeOf(UpgradeProc::upgradePkg), 134217728);
    expectNoFlashing();
    expectFailed();
}

TEST_F(Run, package_that_is_no_archive_fails) {
    runtest::packageOf(runtest::kNewer).setPayload(runtest::noise(4096)).writeTo(kInputPackage);
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 478));
    expectNoFlashing();
    expectFailed();
}

TEST_F(Run, package_with_a_bad_signature_fails) {
    runtest::packageOf(runtest::kNewer).corruptSignature("Image").writeTo(kInputPackage);
    writeKeptFiles();
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedError("upgrade/upgrade_verify_components", "UPGRADE_verify_signature",
                            "verify_signature 'Image' fail!\n"));
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 500));
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
    EXPECT_TRUE(logged(2, publishedLine("PROC_PKG_DONE", "INPROGRESS_MPU")));
    EXPECT_FALSE(fake::log().contains("VERIFY_PKG_DONE"));
    EXPECT_EQ(testsupport::namesIn("/raw/upgrade").size(), 14U);
    expectNoFlashing();
    expectKeptFiles();
    expectFailed();
}

TEST_F(Run, package_that_lacks_a_component_fails) {
    runtest::packageOf(runtest::kNewer).omit("version_list.acs.sign").writeTo(kInputPackage);
    EXPECT_EQ(run(), -1);
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 500));
    expectNoFlashing();
    expectFailed();
}

class RunFlashing : public Run {
  protected:
    // Whatever fails from flashing on ends the same way.
    static void expectFailedInFlashing(const std::string& stage) {
        EXPECT_EQ(run(), -1);
        EXPECT_TRUE(loggedError(kUnit, "_onUpgradeEnd", "upgrade failed! result is FAIL;\n", 382));
        expectInOrder({"[stage FLASHING_START], [result INPROGRESS_MPU]", "remove /firmware/rollback.pkg",
                       "[stage " + stage + "], [result FAIL]", "UpgradeProc::_onUpgradeEnd [fail]",
                       "remove /firmware/upgrade.pkg", "upgrade failed! result is FAIL;",
                       "[stage " + stage + "], [result FAIL]", "UpgradeProc::onUpgradeEnd [fail]",
                       "[stage IDLE], [result NONE]"});
        EXPECT_TRUE(fake::loggedTimes(2, 2, publishedLine(stage, "FAIL")));
        const std::vector<std::int32_t> states = fake::node().states();
        EXPECT_EQ(std::count(states.begin(), states.end(), UPGRADE_STATE_FINISH), 0);
        EXPECT_FALSE(exists(runtest::kMarker));
        EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
        EXPECT_EQ(readFile(UpgradeProc::currentPkg), "current");
        expectFailed();
        EXPECT_EQ(UPGRADE_get_state(), 0);
        EXPECT_EQ(UPGRADE_get_giveup_sts(), kTooLate);
    }
};

TEST_F(RunFlashing, failing_for_the_mpu_fails) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    fake::mpu().upgrade.returns(-1);
    expectFailedInFlashing("FLASHING_START");
    EXPECT_TRUE(loggedStepError("upgrade/upgrade_interface", "upgrade_mpu", 75));
    EXPECT_TRUE(loggedError("upgrade/upgrade_interface", "UPGRADE_mpu_mcu_async",
                            "UPGRADE_mpu_mcu_async mpu failed;\n", 192));
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 533));
    EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
}

TEST_F(RunFlashing, failing_for_the_microcontroller_fails_and_its_version_stays_unknown) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    fake::mcu().upgrade.returns(-1);
    expectFailedInFlashing("FLASHING_START");
    EXPECT_TRUE(loggedStepError("upgrade/upgrade_interface", "upgrade_mcu_local", 124));
    EXPECT_TRUE(loggedError("upgrade/upgrade_interface", "UPGRADE_mpu_mcu_async",
                            "UPGRADE_mpu_mcu_async mcu failed;\n", 197));
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 533));
    EXPECT_EQ(testsupport::readVersions(UpgradeProc::currentCfg).mcu, -1);
}

TEST_F(RunFlashing, one_by_one_fails_as_well) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    proc().flashModeFlag = false;
    fake::mpu().postUpgrade.returns(-1);
    expectFailedInFlashing("FLASHING_START");
    EXPECT_TRUE(loggedStepError("upgrade/upgrade_interface", "upgrade_mpu", 81));
    EXPECT_TRUE(loggedStepError(kUnit, kSequence, 533));
    EXPECT_TRUE(fake::calls().textsOf("mcu.").empty());
}

TEST_F(RunFlashing, followed_by_a_failing_backup_fails) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    writeFile(UpgradeProc::rollbackPkg + "/inside", "a directory in its place");
    expectFailedInFlashing("BACKUP_PACKAGE");
    EXPECT_TRUE(loggedError(kUnit, "tryCpFile", "cp /tmp/package.pkg -> /firmware/rollback.pkg fail\n", 92));
    EXPECT_EQ(fake::countStepErrors(kUnit, kSequence), 0U);
    EXPECT_EQ(fake::log().linesAtLevel(1).size(), 2U);
    EXPECT_TRUE(exists(UpgradeProc::currentCfg));
}

TEST_F(RunFlashing, that_failed_can_be_repeated) {
    runtest::writePackage(kInputPackage);
    fake::mpu().upgrade.returns(-1);
    ASSERT_EQ(run(), -1);
    fake::mpu().upgrade.returns(0);
    EXPECT_EQ(run(), 0) << fake::log();
    EXPECT_EQ(readFile(runtest::kLastRuntime), "upgrade_success");
    EXPECT_TRUE(UPGRADE_isUpgraded());
}

// ---------------------------------------------------------------------------------------------------------------------
// Giving up
// ---------------------------------------------------------------------------------------------------------------------

class RunGivenUp : public Run {
  protected:
    // Asks to give up from within that line's log call.
    static int runAndGiveUpAt(const std::string& line) {
        const Recorder recorder([&](const Recorder::Event& event) {
            if (!event.isMessage && event.text == line) {
                UPGRADE_set_giveup_upgrade_flag();
            }
        });
        return run();
    }
};

TEST_F(RunGivenUp, in_the_last_pause_ends_after_its_own_pauses) {
    runtest::writePackage(kInputPackage);
    writeKeptFiles();
    constexpr double kPausesMs = 500.0 + runtest::kShortSecondMs;
    std::atomic<double> requested{0};
    const Recorder recorder([&](const Recorder::Event& event) {
        if (event.text == textOf(publishedLine("SET_FLAG_DONE", "INPROGRESS_MPU"))) {
            requested = runtest::nowMs();
            UPGRADE_set_giveup_upgrade_flag();
        }
    });
    EXPECT_EQ(run(), -1);
    EXPECT_GE(runtest::nowMs() - requested, kPausesMs);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kGivenUp);
    expectNoFlashing();
    expectKeptFiles();
    expectFailed();
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(RunGivenUp, while_flashing_is_ignored) {
    runtest::writePackage(kInputPackage);
    fake::mpu().upgrade.runs([] {
        UPGRADE_set_giveup_upgrade_flag();
        usleep(50000);
        return 0;
    });
    EXPECT_EQ(run(), 0) << fake::log();
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kTooLate);
    EXPECT_TRUE(proc().upgradeSucc());
    EXPECT_TRUE(proc().giveup);
}

TEST_F(RunGivenUp, at_the_point_of_no_return_is_ignored) {
    runtest::writePackage(kInputPackage);
    EXPECT_EQ(runAndGiveUpAt(textOf(publishedLine("FLASHING_START", "INPROGRESS_MPU"))), 0) << fake::log();
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kTooLate);
}

TEST_F(RunGivenUp, while_the_package_is_kept_is_ignored) {
    runtest::writePackage(kInputPackage);
    fake::mcuVersion().returns(8);
    EXPECT_EQ(runAndGiveUpAt(textOf(publishedLine("BACKUP_PACKAGE", "INPROGRESS_MPU"))), 0) << fake::log();
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kTooLate);
}

TEST_F(RunGivenUp, before_it_began_goes_on) {
    runtest::writePackage(kInputPackage);
    UPGRADE_set_giveup_upgrade_flag();
    EXPECT_EQ(run(), 0) << fake::log();
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kTooLate);
}

TEST_F(RunGivenUp, too_late_does_not_touch_the_next_one) {
    runtest::writePackage(kInputPackage);
    ASSERT_EQ(runAndGiveUpAt(textOf(publishedLine("FLASHING_START", "INPROGRESS_MPU"))), 0) << fake::log();
    ASSERT_TRUE(proc().giveup);
    EXPECT_EQ(run(), 0) << fake::log();
}

TEST_F(RunGivenUp, answer_is_nothing_before_the_first_run_and_stays_between_runs) {
    EXPECT_EQ(UPGRADE_get_giveup_sts(), 0);
    runtest::writePackage(kInputPackage);
    ASSERT_EQ(runAndGiveUpAt("chkFileMd5"), -1);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kGivenUp);
    EXPECT_EQ(run("/tmp/none.pkg"), -1);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kGivenUp);
}

TEST_F(RunGivenUp, on_a_refused_package_is_no_give_up) {
    const Recorder recorder([](const Recorder::Event& event) {
        if (event.text == textOf(publishedLine("INIT", "NONE"))) {
            UPGRADE_set_giveup_upgrade_flag();
        }
    });
    EXPECT_EQ(run("/tmp/none.pkg"), -1);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), 0);
    expectFailed();
}

// ---------------------------------------------------------------------------------------------------------------------
// Paths
// ---------------------------------------------------------------------------------------------------------------------

struct Path {
    const char* name;
    std::string path;
};

std::ostream& operator<<(std::ostream& out, const Path& path) {
    return out << path.name;
}

class RunFromPath : public Run, public testing::WithParamInterface<Path> {
  protected:
    void SetUp() override {
        Run::SetUp();
        runtest::writePackage(kInputPackage);
        copyAside();
    }
};

// Every character that the shell or printf would take for something else, and the longest path there is.
TEST_P(RunFromPath, takes_the_path_as_it_stands) {
    const std::string& path = GetParam().path;
    // A path as long as these is reached by short steps only: the directories are made one in another.
    ASSERT_EQ(chdir("/tmp"), 0);
    std::string rest = path.substr(std::string("/tmp/").size());
    for (unsigned long slash = 0; (slash = rest.find('/')) != std::string::npos;
         rest = rest.substr(slash + 1)) {
        const std::string directory = rest.substr(0, slash);
        ASSERT_EQ(mkdir(directory.c_str(), 0755), 0) << directory;
        ASSERT_EQ(chdir(directory.c_str()), 0) << directory;
    }
    ASSERT_EQ(rename(kInputPackage, rest.c_str()), 0) << rest;
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(run(path), 0) << fake::log();
    EXPECT_TRUE(logged(3, runtest::copiedLine(path, UpgradeProc::upgradePkg)));
    EXPECT_TRUE(logged(3, runtest::copiedLine(path, UpgradeProc::rollbackPkg)));
    EXPECT_TRUE(sameContent(kOriginal, UpgradeProc::rollbackPkg));
    EXPECT_EQ(testsupport::sizeOf(UpgradeProc::rollbackPkg), 134217728);
    EXPECT_EQ(testsupport::namesIn("/firmware"), std::vector<std::string>{"rollback.pkg"});
    EXPECT_FALSE(exists("/injected"));
}

std::string longPath() {
    constexpr unsigned long kLength = 4000;
    std::string path = "/tmp/";
    while (path.size() + 200 < kLength) {
        path += std::string(199, 'd') + "/";
    }
    return path + std::string(kLength - path.size(), 'p');
}

INSTANTIATE_TEST_SUITE_P(
    Paths, RunFromPath,
    testing::Values(Path{"space", "/tmp/with a space.pkg"}, Path{"quotes", "/tmp/it's \"quoted\".pkg"},
                    Path{"substitution", "/tmp/$(touch injected).pkg"}, Path{"newline", "/tmp/a\nb.pkg"},
                    Path{"special", "/tmp/;`touch injected`&|<>*?.pkg"}, Path{"format", "/tmp/%s%n%d.pkg"},
                    Path{"option", "/tmp/-rf.pkg"}, Path{"long", longPath()}),
    testing::PrintToStringParamName());

}  // namespace
