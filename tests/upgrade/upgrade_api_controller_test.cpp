// The controller: its layout, its life, and what every run leans on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/common/libc_spies.h"
#include "tests/common/rendezvous.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/fake_tick.h"
#include "upgrade/upgrade_api.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::eventually;

constexpr const char* kUnit = "upgrade/upgrade_api";
constexpr const char* kIdleLine = "&&&&& upgrade [stage IDLE], [result NONE] &&&&&\n";
constexpr unsigned long kPackageBytes = 134217728;
constexpr const char* kPackage = "/tmp/some.pkg";

class ControllerTest : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        fake::resetCommands();
        fake::onTick({});
    }
};

// With a controller at hand, and no record of how it was made.
class Controller : public ControllerTest {
  protected:
    void SetUp() override {
        ControllerTest::SetUp();
        proc = UpgradeProc::getInstance();
        fake::log().clear();
        fake::node().clear();
        fake::calls().clear();
    }
    UpgradeProc* proc = nullptr;
};

// --- files, names, messages ------------------------------------------------------------------

TEST(ControllerLayout, files_have_their_fixed_places) {
    EXPECT_EQ(UpgradeProc::tmpCfg, "/tmp/upgrade.cfg");
    EXPECT_EQ(UpgradeProc::upgradePkg, "/firmware/upgrade.pkg");
    EXPECT_EQ(UpgradeProc::currentPkg, "/firmware/current.pkg");
    EXPECT_EQ(UpgradeProc::recvPkg, "/firmware/recv.tar.xz");
    EXPECT_EQ(UpgradeProc::rollbackPkg, "/firmware/rollback.pkg");
    EXPECT_EQ(UpgradeProc::storePart, "/raw");
    EXPECT_EQ(UpgradeProc::storePath, "/raw/upgrade");
    EXPECT_EQ(UpgradeProc::rollbackCfg, "/config/rollback_config.json");
    EXPECT_EQ(UpgradeProc::currentCfg, "/config/upgrade_config.json");
    EXPECT_EQ(UpgradeProc::defaultCfg, "/etc/kavro/version.json");
}

struct NameRow {
    int key;
    std::string text;
};

template <std::size_t N>
void expectTable(const COMMON_YR::MapKeyString (&table)[N], const std::vector<NameRow>& rows) {
    ASSERT_EQ(N, rows.size() + 1);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(table[i].key, rows[i].key);
        EXPECT_EQ(table[i].text, rows[i].text);
        EXPECT_EQ(COMMON_YR::getKeyString(rows[i].key, table), rows[i].text);
    }
    EXPECT_EQ(table[N - 1].key, -99999999);
    EXPECT_STREQ(table[N - 1].text, "");
}

TEST(ControllerLayout, stages_have_their_names) {
    expectTable(UpgradeProc::stageNames, {{0, "IDLE"},
                                          {1, "INIT"},
                                          {2, "START"},
                                          {3, "PROC_PKG_DONE"},
                                          {4, "VERIFY_PKG_DONE"},
                                          {5, "SET_FLAG_DONE"},
                                          {6, "FLASHING_START"},
                                          {7, "BACKUP_PACKAGE"},
                                          {8, "DONE"}});
}

TEST(ControllerLayout, states_have_their_names_and_5_has_none) {
    expectTable(UpgradeProc::stateNames, {{0, "NONE"},
                                          {1, "START"},
                                          {2, "INPROGRESS_MPU"},
                                          {3, "INPROGRESS_MCU"},
                                          {4, "FINISH"},
                                          {6, "FAIL"}});
    EXPECT_STREQ(COMMON_YR::getKeyString(5, UpgradeProc::stateNames), "unknown");
}

TEST(ControllerLayout, message_is_16_bytes_of_which_the_last_word_is_the_state) {
    EXPECT_EQ(sizeof(UpgradeStatusMsg), 16U);
    EXPECT_EQ(offsetof(UpgradeStatusMsg, state), 12U);
    EXPECT_EQ(UPGRADE_STATUS_MSG_ID, 4197U);
}

TEST_F(Controller, fields_stand_in_their_order) {
    const auto at = [this](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(proc);
    };
    const std::vector<std::ptrdiff_t> offsets = {
        at(proc->libReady),      at(proc->node),           at(proc->mcu),
        at(proc->mpu),           at(proc->reservedWord),   at(proc->running),
        at(proc->giveup),        at(proc->stage),          at(proc->state),
        at(proc->workPkg),       at(proc->inputPkg),       at(proc->isRollback),
        at(proc->upgradeFlag),   at(proc->targetVersion),  at(proc->currentVersion),
        at(proc->stageTick),     at(proc->activateResult), at(proc->reservedLong),
        at(proc->flashModeFlag), at(proc->activated),      at(proc->reservedEnd)};
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
    static_assert(std::is_same_v<decltype(UpgradeProc::running), std::atomic<bool>>);
    static_assert(std::is_same_v<decltype(UpgradeProc::giveup), std::atomic<bool>>);
    static_assert(std::is_same_v<decltype(UpgradeProc::stage), std::atomic<int>>);
    static_assert(std::is_same_v<decltype(UpgradeProc::state), std::atomic<int>>);
}

// --- creation --------------------------------------------------------------------------------

TEST_F(ControllerTest, starts_idle) {
    const UpgradeProc* proc = UpgradeProc::getInstance();
    ASSERT_NE(proc, nullptr);
    EXPECT_TRUE(proc->libReady);
    EXPECT_EQ(proc->node, fake::node().handle());
    EXPECT_NE(proc->mcu, nullptr);
    EXPECT_NE(proc->mpu, nullptr);
    EXPECT_EQ(proc->reservedWord, 0U);
    EXPECT_FALSE(proc->running);
    EXPECT_FALSE(proc->giveup);
    EXPECT_EQ(proc->stage, 0);
    EXPECT_EQ(proc->state, 0);
    EXPECT_EQ(proc->workPkg, "");
    EXPECT_EQ(proc->inputPkg, "");
    EXPECT_FALSE(proc->isRollback);
    EXPECT_FALSE(proc->upgradeFlag.bld || proc->upgradeFlag.mpu || proc->upgradeFlag.mcu);
}

TEST_F(ControllerTest, starts_with_no_versions_and_nothing_activated) {
    const UpgradeProc* proc = UpgradeProc::getInstance();
    for (const L_VERSION_T& version : {proc->targetVersion, proc->currentVersion}) {
        EXPECT_EQ(version.hw, 0);
        EXPECT_EQ(version.mpu, 0);
        EXPECT_EQ(version.mcu, 0);
        EXPECT_EQ(version.bld, 0);
    }
    EXPECT_EQ(proc->activateResult, -1);
    EXPECT_EQ(proc->reservedLong, 0U);
    EXPECT_TRUE(proc->flashModeFlag);
    EXPECT_FALSE(proc->activated);
    EXPECT_EQ(proc->reservedEnd, -99999998);
}

TEST_F(ControllerTest, has_ticks_for_nine_stages_of_which_idle_is_stamped_by_its_creation) {
    fake::setTick(4711.0);
    const UpgradeProc* proc = UpgradeProc::getInstance();
    EXPECT_THAT(proc->stageTick, ElementsAre(4711.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0));
}

TEST_F(ControllerTest, is_published_before_its_node_is_opened) {
    UpgradeProc::getInstance();
    EXPECT_TRUE(fake::loggedTimes(1, 2, kIdleLine));
    ASSERT_EQ(fake::node().count(), 1U);
    EXPECT_EQ(fake::node().messages()[0].handle, nullptr);
    EXPECT_EQ(fake::node().messages()[0].word(3), 0);
    EXPECT_LT(fake::node().messages()[0].order, fake::calls().all().at(0).order);
}

TEST_F(ControllerTest, opens_the_node_then_makes_the_drivers_of_mcu_and_mpu) {
    const UpgradeProc* proc = UpgradeProc::getInstance();
    EXPECT_THAT(fake::calls().texts(),
                ElementsAre("getVelNode(258, upgrade, 0, 0, 2000)", "mcu()", "mcu.init()", "mpu()"));
    EXPECT_EQ(proc->mcu->name, "upgradeMcu");
    EXPECT_TRUE(proc->mcu->initOk);
}

TEST_F(ControllerTest, is_made_once) {
    UpgradeProc* const first = UpgradeProc::getInstance();
    fake::log().clear();
    fake::calls().clear();
    EXPECT_EQ(UpgradeProc::getInstance(), first);
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ControllerTest, is_one_object_for_many_threads_that_ask_at_once) {
    constexpr unsigned kThreads = 24;
    fake::mcu().init.runs([] {
        usleep(50000);
        return 0;
    });
    std::atomic<unsigned> ready{0};
    std::vector<UpgradeProc*> seen(kThreads);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready < kThreads) {
            }
            seen[i] = UpgradeProc::getInstance();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_NE(seen[0], nullptr);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), seen[0]), kThreads);
    EXPECT_EQ(fake::calls().count("mcu()"), 1U);
    EXPECT_EQ(fake::calls().count("mpu()"), 1U);
}

TEST_F(ControllerTest, without_a_node_it_works_and_publishes_to_none) {
    fake::node().setNull(true);
    UpgradeProc* proc = UpgradeProc::getInstance();
    ASSERT_NE(proc, nullptr);
    EXPECT_TRUE(fake::loggedTimes(1, 2, "velNodeFd NULL!\n"));
    EXPECT_EQ(proc->node, nullptr);
    EXPECT_TRUE(proc->libReady);
    proc->onProgrameStatusChg();
    ASSERT_EQ(fake::node().count(), 2U);
    EXPECT_EQ(fake::node().messages()[1].handle, nullptr);
    EXPECT_TRUE(fake::loggedTimes(2, 2, kIdleLine));
}

TEST_F(ControllerTest, with_a_node_says_nothing_about_it) {
    UpgradeProc::getInstance();
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
}

TEST_F(ControllerTest, without_a_usable_mcu_driver_no_mpu_driver_is_made) {
    fake::mcu().init.returns(-1);
    const UpgradeProc* proc = UpgradeProc::getInstance();
    ASSERT_NE(proc, nullptr);
    EXPECT_THAT(fake::calls().texts(),
                ElementsAre("getVelNode(258, upgrade, 0, 0, 2000)", "mcu()", "mcu.init()"));
    ASSERT_NE(proc->mcu, nullptr);
    EXPECT_FALSE(proc->mcu->initOk);
    EXPECT_EQ(proc->mpu, nullptr);
    EXPECT_FALSE(proc->libReady);
}

TEST_F(ControllerTest, an_mcu_driver_that_calls_itself_usable_counts_though_its_init_failed) {
    fake::mcu().init.returns(-1);
    fake::mcu().initSetsReady = true;
    const UpgradeProc* proc = UpgradeProc::getInstance();
    EXPECT_NE(proc->mpu, nullptr);
    EXPECT_TRUE(proc->libReady);
}

TEST_F(ControllerTest, a_positive_result_makes_the_mcu_driver_usable) {
    fake::mcu().ready = false;
    fake::mcu().init.returns(3);
    const UpgradeProc* proc = UpgradeProc::getInstance();
    EXPECT_TRUE(proc->mcu->initOk);
    EXPECT_TRUE(proc->libReady);
}

TEST_F(ControllerTest, is_not_ready_with_an_mpu_driver_that_is_not_usable) {
    fake::mpu().ready = false;
    const UpgradeProc* proc = UpgradeProc::getInstance();
    EXPECT_NE(proc->mpu, nullptr);
    EXPECT_FALSE(proc->libReady);
}

// --- destruction -----------------------------------------------------------------------------

class ControllerDeath : public ControllerTest {
  protected:
    static constexpr const char* kRecord = "/tmp/calls_at_exit";

    // A process of its own, which ends as an application does.
    static void exitWith(bool usableMcu, bool created) {
        fake::calls().mirrorTo(kRecord);
        if (!usableMcu) {
            fake::mcu().init.returns(-1);
        }
        if (created) {
            UpgradeProc::getInstance();
        }
        std::exit(0);
    }
    static std::string record() { return testsupport::readFile(kRecord); }

    void SetUp() override {
        ControllerTest::SetUp();
        testing::FLAGS_gtest_death_test_style = "threadsafe";
    }
};

TEST_F(ControllerDeath, drivers_go_before_the_node_at_exit) {
    EXPECT_EXIT(exitWith(true, true), testing::ExitedWithCode(0), "");
    EXPECT_EQ(record(),
              "getVelNode(258, upgrade, 0, 0, 2000)\nmcu()\nmcu.init()\nmpu()\n"
              "~mpu()\n~mcu()\nvelDestroyNode()\n");
}

TEST_F(ControllerDeath, a_missing_mpu_driver_is_no_obstacle_at_exit) {
    EXPECT_EXIT(exitWith(false, true), testing::ExitedWithCode(0), "");
    EXPECT_EQ(record(),
              "getVelNode(258, upgrade, 0, 0, 2000)\nmcu()\nmcu.init()\n"
              "~mcu()\nvelDestroyNode()\n");
}

TEST_F(ControllerDeath, nothing_is_made_for_a_process_that_never_asked) {
    EXPECT_EXIT(exitWith(true, false), testing::ExitedWithCode(0), "");
    EXPECT_EQ(record(), "");
}

// --- preparing a run -------------------------------------------------------------------------

class ControllerInit : public Controller {
  protected:
    static void placePackage(unsigned long size = kPackageBytes) { testsupport::writeSparse(kPackage, size); }
    static std::string lastRuntime() { return testsupport::readFile("/config/upgrade_last_runtime"); }
};

TEST_F(ControllerInit, accepts_a_package_of_exactly_128_mib) {
    placePackage();
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_TRUE(proc->running);
    EXPECT_EQ(proc->stage, UPGRADE_STAGE_INIT);
    EXPECT_EQ(proc->state, UPGRADE_STATE_NONE);
    EXPECT_EQ(proc->inputPkg, kPackage);
    EXPECT_EQ(proc->workPkg, "");
    EXPECT_FALSE(proc->isRollback);
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(ControllerInit, refuses_a_package_of_any_other_size) {
    for (const unsigned long size : {134217727UL, 134217729UL, 0UL, 2 * kPackageBytes}) {
        fake::log().clear();
        placePackage(size);
        EXPECT_FALSE(proc->init(kPackage, false)) << size;
        EXPECT_THAT(
            fake::log().linesAtLevel(1),
            ElementsAre("file:upgrade/upgrade_api, func:init line:192 input file(/tmp/some.pkg) size is " +
                        std::to_string(size) + "/134217728(expect);\n"));
    }
}

TEST_F(ControllerInit, refuses_a_package_that_is_not_there) {
    const long size = COMMON_YR::getFileSize("/tmp/no.pkg");
    ASSERT_LT(size, 0);
    EXPECT_FALSE(proc->init("/tmp/no.pkg", false));
    EXPECT_TRUE(fake::loggedError(
        kUnit, "init", "input file(/tmp/no.pkg) size is " + std::to_string(size) + "/134217728(expect);\n",
        192));
}

TEST_F(ControllerInit, needs_a_work_area_about_which_storage_answers) {
    placePackage();
    const upgradetest::UnansweredPath unanswered(UpgradeProc::storePath);
    EXPECT_FALSE(proc->init(kPackage, false));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(ControllerInit, a_refused_package_leaves_stage_and_outcome_of_the_attempt) {
    placePackage(1);
    testsupport::writeFile("/raw/kept", "x");
    EXPECT_FALSE(proc->init(kPackage, false));
    EXPECT_EQ(proc->stage, UPGRADE_STAGE_INIT);
    EXPECT_TRUE(proc->running);
    EXPECT_EQ(lastRuntime(), "upgrade_failure");
    EXPECT_TRUE(testsupport::exists("/raw/kept"));
    EXPECT_THAT(fake::commands(), IsEmpty());
}

TEST_F(ControllerInit, records_the_worst_outcome_before_anything_is_published) {
    placePackage();
    std::string recorded;
    fake::log().onLine([&](const fake::LogLine& line) {
        if (line.text == "&&&&& upgrade [stage INIT], [result NONE] &&&&&\n") {
            recorded = lastRuntime();
        }
    });
    EXPECT_TRUE(proc->init(kPackage, false));
    fake::log().onLine({});
    EXPECT_EQ(recorded, "upgrade_failure");
}

TEST_F(ControllerInit, a_rollback_is_remembered_as_one) {
    placePackage();
    EXPECT_TRUE(proc->init(kPackage, true));
    EXPECT_TRUE(proc->isRollback);
    EXPECT_EQ(lastRuntime(), "rollback_failure");
}

TEST_F(ControllerInit, publishes_its_stage) {
    placePackage();
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_TRUE(fake::loggedTimes(1, 2, "&&&&& upgrade [stage INIT], [result NONE] &&&&&\n"));
    EXPECT_THAT(fake::node().states(), ElementsAre(0));
}

TEST_F(ControllerInit, makes_an_empty_work_area) {
    placePackage();
    testsupport::writeFile("/raw/upgrade/ext4", "old");
    testsupport::writeFile("/raw/other/file", "old");
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_THAT(testsupport::namesIn("/raw"), ElementsAre("upgrade"));
    EXPECT_THAT(testsupport::namesIn("/raw/upgrade"), IsEmpty());
    EXPECT_THAT(fake::commands(), ElementsAre("rm /raw/* -fr", "mkdir -p /raw/upgrade"));
}

TEST_F(ControllerInit, goes_by_the_work_area_and_not_by_the_commands) {
    placePackage();
    std::filesystem::create_directory("/raw/upgrade");
    fake::failCommands("");
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_EQ(fake::commands().size(), 2U);
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(ControllerInit, without_a_work_area_fails_without_a_word) {
    placePackage();
    fake::failCommands("mkdir");
    EXPECT_FALSE(proc->init(kPackage, false));
    EXPECT_EQ(fake::log().lines().size(), 1U) << fake::log();
    EXPECT_EQ(proc->currentVersion.mpu, 0);
    EXPECT_EQ(lastRuntime(), "upgrade_failure");
}

TEST_F(ControllerInit, reads_the_installed_versions) {
    placePackage();
    testsupport::writeVersions(UpgradeProc::currentCfg, {9, 9, 6, 9});
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_EQ(proc->currentVersion.hw, 1);
    EXPECT_EQ(proc->currentVersion.mpu, 104);
    EXPECT_EQ(proc->currentVersion.mcu, 6);
    EXPECT_EQ(proc->currentVersion.bld, 2);
    EXPECT_EQ(fake::calls().count("mcuVersion()"), 1U);
}

TEST_F(ControllerInit, goes_on_without_installed_versions) {
    placePackage();
    std::filesystem::remove("/etc/kavro/version.json");
    proc->currentVersion = {1, 2, 3, 4};
    EXPECT_TRUE(proc->init(kPackage, false));
    EXPECT_EQ(proc->currentVersion.mpu, 2);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "getCurrentVersion"));
}

// --- publishing ------------------------------------------------------------------------------

TEST_F(Controller, publishes_16_bytes_that_carry_the_state) {
    for (const int state : {0, 1, 2, 3, 4, 6, -2}) {
        fake::node().clear();
        proc->state = state;
        proc->onProgrameStatusChg();
        ASSERT_EQ(fake::node().count(), 1U);
        const fake::Message message = fake::node().messages()[0];
        EXPECT_EQ(message.handle, proc->node);
        EXPECT_EQ(message.word(0), 0x1065);
        EXPECT_EQ(message.word(1), 12);
        EXPECT_EQ(message.word(2), 2);
        EXPECT_EQ(message.word(3), state);
    }
}

TEST_F(Controller, logs_the_names_of_stage_and_state) {
    proc->stage = UPGRADE_STAGE_FLASHING_START;
    proc->state = UPGRADE_STATE_FAIL;
    proc->onProgrameStatusChg();
    ASSERT_EQ(fake::log().lines().size(), 1U);
    EXPECT_TRUE(fake::logged(2, "&&&&& upgrade [stage FLASHING_START], [result FAIL] &&&&&\n"));
}

TEST_F(Controller, logs_a_state_without_a_name_as_unknown) {
    proc->stage = UPGRADE_STAGE_DONE;
    proc->state = 5;
    proc->onProgrameStatusChg();
    EXPECT_TRUE(fake::logged(2, "&&&&& upgrade [stage DONE], [result unknown] &&&&&\n"));
    EXPECT_THAT(fake::node().states(), ElementsAre(5));
}

TEST_F(Controller, logs_then_publishes_then_looks_at_the_clock) {
    unsigned long published = 0;
    unsigned long lines = 0;
    fake::node().onPublish([&](const fake::Message&) { lines = fake::log().lines().size(); });
    fake::onTick([&] { published = fake::node().count(); });
    proc->onProgrameStatusChg();
    EXPECT_EQ(lines, 1U);
    EXPECT_EQ(published, 1U);
}

TEST_F(Controller, keeps_the_first_tick_of_a_stage) {
    proc->stage = UPGRADE_STAGE_START;
    fake::setTick(100.5);
    proc->onProgrameStatusChg();
    fake::setTick(200.0);
    proc->onProgrameStatusChg();
    proc->state = UPGRADE_STATE_INPROGRESS_MPU;
    proc->onProgrameStatusChg();
    EXPECT_EQ(proc->stageTick[UPGRADE_STAGE_START], 100.5);
    EXPECT_EQ(fake::node().count(), 3U);
}

TEST_F(Controller, stamps_each_stage_by_itself) {
    for (int stage = UPGRADE_STAGE_INIT; stage <= UPGRADE_STAGE_DONE; ++stage) {
        fake::setTick(stage * 10.0);
        proc->stage = stage;
        proc->onProgrameStatusChg();
    }
    EXPECT_THAT(proc->stageTick, ElementsAre(1000.0, 10.0, 20.0, 30.0, 40.0, 50.0, 60.0, 70.0, 80.0));
}

TEST_F(Controller, publishing_a_stage_that_is_none_stamps_nothing) {
    for (const int stage : {-1, 9, 1000000}) {
        proc->stage = stage;
        proc->onProgrameStatusChg();
    }
    EXPECT_EQ(fake::node().count(), 3U);
    EXPECT_EQ(proc->reservedEnd, -99999998);
    EXPECT_EQ(proc->activateResult, -1);
}

// --- small operations ------------------------------------------------------------------------

TEST_F(Controller, a_run_has_succeeded_only_when_it_is_done_and_finished) {
    for (int stage = -1; stage <= 9; ++stage) {
        for (int state = -1; state <= 7; ++state) {
            proc->stage = stage;
            proc->state = state;
            EXPECT_EQ(proc->upgradeSucc(), stage == 8 && state == 4) << stage << " " << state;
        }
    }
}

TEST_F(Controller, activated_is_what_was_set) {
    proc->setActivated(true);
    EXPECT_TRUE(proc->activated);
    proc->setActivated(false);
    EXPECT_FALSE(proc->activated);
}

TEST_F(Controller, link_switches_as_the_device_says) {
    for (const int result : {0, 1, 100}) {
        fake::spi().returns(result);
        EXPECT_TRUE(proc->ctrlSpi(true)) << result;
    }
    fake::spi().returns(-1);
    EXPECT_FALSE(proc->ctrlSpi(false));
    EXPECT_THAT(fake::calls().texts(), ElementsAre("spi(true)", "spi(true)", "spi(true)", "spi(false)"));
}

TEST_F(Controller, hooks_and_deinit_do_nothing) {
    EXPECT_TRUE(proc->deinit());
    proc->preActivate();
    proc->preUpgradeMpu();
    proc->postUpgradeMpu(true);
    proc->postUpgradeMpu(false);
    EXPECT_TRUE(fake::nothingLogged());
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
    EXPECT_FALSE(testsupport::exists(UpgradeProc::currentCfg));
}

TEST_F(Controller, an_upgrade_awaits_activation_when_its_marker_exists) {
    EXPECT_FALSE(UPGRADE_isUpgraded());
    testsupport::writeFile("/config/upgraded", "");
    EXPECT_TRUE(UPGRADE_isUpgraded());
    std::filesystem::remove("/config/upgraded");
    EXPECT_FALSE(UPGRADE_isUpgraded());
}

TEST_F(Controller, reset_brings_a_run_back_to_the_start_and_keeps_the_rest) {
    proc->reservedWord = 5;
    proc->running = true;
    proc->giveup = true;
    proc->stage = 8;
    proc->state = 4;
    proc->workPkg = "a";
    proc->inputPkg = "b";
    proc->isRollback = true;
    proc->upgradeFlag = {true, true, true};
    proc->targetVersion = {1, 2, 3, 4};
    proc->currentVersion = {5, 6, 7, 8};
    std::fill(std::begin(proc->stageTick), std::end(proc->stageTick), 3.0);
    proc->activateResult = 2;
    proc->activated = true;
    proc->flashModeFlag = false;
    proc->resetRun();
    EXPECT_EQ(proc->reservedWord, 0U);
    EXPECT_FALSE(proc->running || proc->giveup || proc->isRollback || proc->activated);
    EXPECT_EQ(proc->stage + proc->state, 0);
    EXPECT_EQ(proc->workPkg, "");
    EXPECT_FALSE(proc->upgradeFlag.bld || proc->upgradeFlag.mpu || proc->upgradeFlag.mcu);
    EXPECT_EQ(proc->targetVersion.mpu + proc->currentVersion.mpu, 0);
    EXPECT_THAT(proc->stageTick, testing::Each(0.0));
    EXPECT_EQ(proc->activateResult, -1);
    EXPECT_FALSE(proc->flashModeFlag);
    EXPECT_TRUE(proc->libReady);
}

// --- what a run shows of it --------------------------------------------------------------------

// A run of a package without a trailer: copied, then found bad.
class ControllerRun : public Controller {
  protected:
    void SetUp() override {
        Controller::SetUp();
        testsupport::writeSparse(kPackage, kPackageBytes);
    }
    static unsigned long changesLogged() {
        const std::vector<fake::LogLine> lines = fake::log().lines();
        return static_cast<unsigned long>(std::count_if(
            lines.begin(), lines.end(),
            [](const fake::LogLine& line) { return line.text.compare(0, 14, "&&&&& upgrade ") == 0; }));
    }
};

TEST_F(ControllerRun, state_is_published_again_and_again_without_a_log_line) {
    constexpr unsigned kRepetitions = 3;
    constexpr unsigned long kPeriodUs = 200000;
    bool seen = false;
    // Holds the worker until the node thread has repeated the state.
    fake::log().onLine([&](const fake::LogLine& line) {
        if (line.text == "&&&&& upgrade [stage INIT], [result START] &&&&&\n") {
            const unsigned long before = fake::node().count();
            seen = eventually([&] { return fake::node().count() >= before + kRepetitions; });
        }
    });
    spy::sleeps().clear();
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    fake::log().onLine({});
    EXPECT_TRUE(seen);
    EXPECT_GE(fake::node().count(), changesLogged() + kRepetitions);
    EXPECT_GE(spy::sleeps().count(kPeriodUs), kRepetitions);
    EXPECT_THAT(fake::node().states(), testing::Contains(1).Times(testing::Ge(kRepetitions)));
}

TEST_F(ControllerRun, repetitions_end_with_the_run) {
    const unsigned long threads = testsupport::threadCount();
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    EXPECT_TRUE(testsupport::waitForThreadCount(threads));
    const unsigned long messages = fake::node().count();
    usleep(500000);
    EXPECT_EQ(fake::node().count(), messages);
}

TEST_F(ControllerRun, repetitions_stamp_no_stage) {
    fake::setTick(1.0);
    bool stamped = true;
    fake::log().onLine([&](const fake::LogLine& line) {
        if (line.text != "&&&&& upgrade [stage INIT], [result START] &&&&&\n") {
            return;
        }
        proc->stageTick[UPGRADE_STAGE_INIT] = 0.0;
        const unsigned long before = fake::node().count();
        EXPECT_TRUE(eventually([&] { return fake::node().count() >= before + 2; }));
        stamped = proc->stageTick[UPGRADE_STAGE_INIT] != 0.0;
    });
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    fake::log().onLine({});
    EXPECT_FALSE(stamped);
}

TEST_F(ControllerRun, a_copy_that_succeeds_is_logged) {
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    EXPECT_TRUE(fake::loggedTimes(1, 3, "cp /tmp/some.pkg -> /firmware/upgrade.pkg succ\n"));
}

TEST_F(ControllerRun, a_copy_that_fails_is_logged_with_its_number) {
    testsupport::writeFile("/firmware/upgrade.pkg/in/the/way", "x");
    EXPECT_EQ(UPGRADE_main_proc_fun(kPackage), -1);
    EXPECT_THAT(fake::log().linesAtLevel(1),
                ElementsAre("file:upgrade/upgrade_api, func:tryCpFile line:92 cp /tmp/some.pkg -> "
                            "/firmware/upgrade.pkg fail\n"));
    EXPECT_TRUE(fake::notLogged(3, "cp /tmp/some.pkg -> /firmware/upgrade.pkg succ\n"));
}

}  // namespace
