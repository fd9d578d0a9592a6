// Flashing one processor after the other, the job of each, and the interface of the drivers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/upgrade/flashing_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using namespace flashing;

class OneByOne : public Flashing {
  protected:
    void SetUp() override {
        Flashing::SetUp();
        proc->flashModeFlag = false;
    }
    static int flash(UPGRADE_FLAG_T flag) { return UPGRADE_mpu_mcu(kFirmware, flag, false); }
};

// --- one after the other -------------------------------------------------------------------------

TEST_F(OneByOne, flashes_first_the_mpu_then_the_mcu) {
    EXPECT_EQ(flash(kAll), 0);
    EXPECT_THAT(driverCalls(), ElementsAre("mpu.preUpgrade(/raw/upgrade, true, true)", "mpu.upgrade()",
                                           "mpu.postUpgrade()", "mcu.preUpgrade(/raw/upgrade, true, false)",
                                           "spi(true)", "mcu.upgrade()", "mcu.postUpgrade()", "spi(false)"));
}

TEST_F(OneByOne, works_on_the_callers_thread) {
    EXPECT_EQ(flash(kAll), 0);
    for (const fake::Call& call : fake::calls().all()) {
        EXPECT_EQ(call.threadName, spy::ownThreadName()) << call.text;
    }
}

TEST_F(OneByOne, bootloader_goes_with_the_mpu_only_when_it_is_asked_for) {
    EXPECT_EQ(flash(kMpuOnly), 0);
    EXPECT_THAT(driverCalls(), ElementsAre("mpu.preUpgrade(/raw/upgrade, false, true)", "mpu.upgrade()",
                                           "mpu.postUpgrade()"));
}

TEST_F(OneByOne, mcu_is_flashed_with_its_loader_whatever_the_bootloader_flag_says) {
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_EQ(fake::calls().count("mcu.preUpgrade(/raw/upgrade, true, false)"), 1U);
    EXPECT_THAT(fake::calls().textsOf("mpu"), IsEmpty());
}

TEST_F(OneByOne, a_bootloader_alone_is_not_flashed) {
    EXPECT_EQ(flash({true, false, false}), 0);
    EXPECT_THAT(driverCalls(), IsEmpty());
}

TEST_F(OneByOne, nothing_asked_for_is_success_and_still_ends_the_mcu_flash) {
    EXPECT_EQ(flash(kNothing), 0);
    EXPECT_THAT(driverCalls(), IsEmpty());
    EXPECT_THAT(fake::log().linesAtLevel(1), IsEmpty());
    const std::vector<fake::LogLine> lines = fake::log().lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(lines[0].text, "upgrade_mpu: ret is 0;\n");
    EXPECT_EQ(lines[1].text, "upgrade_mcu_local +++\n");
    EXPECT_EQ(lines[2].text, "no need to upgrade mcu!\n");
    EXPECT_EQ(lines.back().text, "upgrade_mcu_local ---, ret is 0\n");
    for (const unsigned index : {0U, 1U, 2U}) {
        EXPECT_EQ(lines[index].level, 3);
    }
    EXPECT_EQ(lines.back().level, 3);
    // postUpgradeMcu(true) enters the package's version.
    EXPECT_EQ(recordedMcuVersion(), kPackageMcu);
}

TEST_F(OneByOne, nothing_asked_for_changes_and_publishes_no_state) {
    proc->state = UPGRADE_STATE_INPROGRESS_MPU;
    EXPECT_EQ(flash(kNothing), 0);
    EXPECT_EQ(proc->state, UPGRADE_STATE_INPROGRESS_MPU);
    EXPECT_EQ(fake::node().count(), 0U);
}

TEST_F(OneByOne, positive_results_are_success) {
    fake::mpu().preUpgrade.returns(1);
    fake::mpu().upgrade.returns(2);
    fake::mpu().postUpgrade.returns(3);
    fake::mcu().preUpgrade.returns(4);
    fake::spi().returns(5);
    fake::mcu().upgrade.returns(6);
    fake::mcu().postUpgrade.returns(7);
    EXPECT_EQ(flash(kBoth), 0);
    EXPECT_TRUE(fake::logged(3, "upgrade_mpu: ret is 0;\n"));
    EXPECT_TRUE(fake::logged(3, "upgrade_mcu_local ---, ret is 0\n"));
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(OneByOne, third_argument_makes_no_difference) {
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kAll, true), 0);
    const std::vector<std::string> rollback = driverCalls();
    fake::calls().clear();
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kAll, false), 0);
    EXPECT_EQ(driverCalls(), rollback);
}

TEST_F(OneByOne, firmware_directory_is_handed_on_as_it_is) {
    EXPECT_EQ(UPGRADE_mpu_mcu("/some where/else", kBoth, false), 0);
    EXPECT_EQ(fake::calls().count("mpu.preUpgrade(/some where/else, false, true)"), 1U);
    EXPECT_EQ(fake::calls().count("mcu.preUpgrade(/some where/else, true, false)"), 1U);
}

TEST_F(OneByOne, mpu_success_is_logged) {
    EXPECT_EQ(flash(kMpuOnly), 0);
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mpu: ret is 0;\n"));
    EXPECT_LT(orderOfCall("mpu.postUpgrade()"), orderOfLine("upgrade_mpu: ret is 0;\n"));
}

TEST_F(OneByOne, mpu_flashing_touches_no_state_and_publishes_nothing) {
    proc->state = UPGRADE_STATE_INPROGRESS_MPU;
    fake::mpu().upgrade.returns(-1);
    EXPECT_EQ(flash(kMpuOnly), -1);
    EXPECT_EQ(proc->state, UPGRADE_STATE_INPROGRESS_MPU);
    EXPECT_EQ(fake::node().count(), 0U);
}

// A step of the MPU's flash that fails.
struct MpuStep {
    const char* name;
    int line;
    std::vector<std::string> calls;
    std::function<void(int)> fail;
};

void PrintTo(const MpuStep& step, std::ostream* out) {
    *out << step.name;
}

const std::vector<MpuStep> kMpuSteps = {
    {"preUpgrade",
     69,
     {"mpu.preUpgrade(/raw/upgrade, true, true)"},
     [](int result) { fake::mpu().preUpgrade.returns(result); }},
    {"upgrade",
     75,
     {"mpu.preUpgrade(/raw/upgrade, true, true)", "mpu.upgrade()"},
     [](int result) { fake::mpu().upgrade.returns(result); }},
    {"postUpgrade",
     81,
     {"mpu.preUpgrade(/raw/upgrade, true, true)", "mpu.upgrade()", "mpu.postUpgrade()"},
     [](int result) { fake::mpu().postUpgrade.returns(result); }},
};

class FailingMpuStep : public OneByOne, public testing::WithParamInterface<MpuStep> {};

TEST_P(FailingMpuStep, ends_the_flash_before_the_mcu_is_touched) {
    GetParam().fail(-7);
    EXPECT_EQ(flash(kAll), -1);
    EXPECT_EQ(driverCalls(), GetParam().calls);
    EXPECT_TRUE(fake::notLogged(3, "upgrade_mcu_local +++\n"));
    EXPECT_EQ(recordedMcuVersion(), kInstalledMcu);
}

TEST_P(FailingMpuStep, is_logged_with_its_number_and_the_result) {
    GetParam().fail(-7);
    EXPECT_EQ(flash(kAll), -1);
    const std::string number = std::to_string(GetParam().line);
    const std::string error = "file:upgrade/upgrade_interface, func:upgrade_mpu line:" + number +
                              " upgrade/upgrade_interface upgrade_mpu " + number + " error!!!\n";
    const std::vector<fake::LogLine> lines = fake::log().lines();
    ASSERT_EQ(lines.size(), 2U) << fake::log();
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].text, error);
    EXPECT_EQ(lines[1].level, 3);
    EXPECT_EQ(lines[1].text, "upgrade_mpu: ret is -1;\n");
}

INSTANTIATE_TEST_SUITE_P(Each, FailingMpuStep, testing::ValuesIn(kMpuSteps),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_F(OneByOne, without_an_mpu_driver_the_flash_fails_as_at_its_first_step) {
    proc->mpu.reset();
    fake::calls().clear();
    EXPECT_EQ(flash(kAll), -1);
    EXPECT_TRUE(fake::loggedStepError(kUnit, "upgrade_mpu", 69));
    EXPECT_THAT(driverCalls(), IsEmpty());
}

// --- the microcontroller's part ------------------------------------------------------------------

TEST_F(OneByOne, state_is_published_when_the_mcu_driver_has_accepted_the_firmware) {
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_EQ(proc->state, UPGRADE_STATE_INPROGRESS_MCU);
    EXPECT_THAT(fake::node().states(), ElementsAre(3));
    const std::string published = "&&&&& upgrade [stage IDLE], [result INPROGRESS_MCU] &&&&&\n";
    EXPECT_TRUE(fake::loggedTimes(1, 2, published));
    EXPECT_LT(orderOfCall("mcu.preUpgrade(/raw/upgrade, true, false)"), orderOfLine(published));
    EXPECT_LT(orderOfLine(published), orderOfCall("spi(true)"));
}

TEST_F(OneByOne, mcu_flash_logs_begin_start_and_end) {
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mcu_local +++\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "UPGRADE_Mcu start ...\n"));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "upgrade_mcu_local ---, ret is 0\n"));
    EXPECT_TRUE(fake::notLogged(3, "no need to upgrade mcu!\n"));
    EXPECT_LT(orderOfLine("upgrade_mcu_local +++\n"),
              orderOfCall("mcu.preUpgrade(/raw/upgrade, true, false)"));
    EXPECT_LT(orderOfCall("spi(true)"), orderOfLine("UPGRADE_Mcu start ...\n"));
    EXPECT_LT(orderOfLine("UPGRADE_Mcu start ...\n"), orderOfCall("mcu.upgrade()"));
    EXPECT_LT(orderOfCall("spi(false)"), orderOfLine("upgrade_mcu_local ---, ret is 0\n"));
}

TEST_F(OneByOne, link_settles_for_a_second_before_the_mcu_is_flashed) {
    spy::sleeps().onSleep([](const spy::Sleep& sleep) {
        if (sleep.threadName == kMonitor) {
            return true;
        }
        fake::calls().add("sleep " + std::to_string(sleep.microseconds));
        return false;
    });
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_THAT(driverCalls(),
                ElementsAre("mcu.preUpgrade(/raw/upgrade, true, false)", "spi(true)", "sleep 1000000",
                            "mcu.upgrade()", "mcu.postUpgrade()", "spi(false)"));
    EXPECT_TRUE(fake::logged(3, "UPGRADE_Mcu start ...\n"));
}

TEST_F(OneByOne, mcu_version_is_unfinished_while_it_is_flashed_and_then_the_packages) {
    int before = 0;
    int during = 0;
    int onLinkOff = 0;
    fake::spi().runs([&](bool on) {
        (on ? before : onLinkOff) = recordedMcuVersion();
        return 0;
    });
    fake::mcu().upgrade.runs([&] {
        during = recordedMcuVersion();
        return 0;
    });
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_EQ(before, kInstalledMcu);
    EXPECT_EQ(during, kUnfinished);
    EXPECT_EQ(onLinkOff, kUnfinished);
    EXPECT_EQ(recordedMcuVersion(), kPackageMcu);
    EXPECT_EQ(testsupport::readVersions(UpgradeProc::currentCfg).mpu, 104);
}

TEST_F(OneByOne, mcu_not_to_be_flashed_is_left_alone_after_the_mpu) {
    EXPECT_EQ(flash(kMpuOnly), 0);
    EXPECT_THAT(fake::calls().textsOf("mcu."), IsEmpty());
    EXPECT_THAT(fake::calls().textsOf("spi"), IsEmpty());
    EXPECT_TRUE(fake::logged(3, "no need to upgrade mcu!\n"));
}

// A step of the MCU's flash that fails.
struct McuStep {
    const char* name;
    int line;
    std::vector<std::string> calls;
    int state;       // that is set and published; 0 for none
    int mcuVersion;  // that is recorded afterwards
    std::function<void()> fail;
};

void PrintTo(const McuStep& step, std::ostream* out) {
    *out << step.name;
}

const std::vector<McuStep> kMcuSteps = {
    {"preUpgrade",
     107,
     {"mcu.preUpgrade(/raw/upgrade, true, false)"},
     0,
     kInstalledMcu,
     [] { fake::mcu().preUpgrade.returns(-3); }},
    {"spi",
     115,
     {"mcu.preUpgrade(/raw/upgrade, true, false)", "spi(true)", "spi(false)"},
     UPGRADE_STATE_INPROGRESS_MCU,
     kInstalledMcu,
     [] { fake::spi().runs([](bool on) { return on ? -3 : 0; }); }},
    {"upgrade",
     124,
     {"mcu.preUpgrade(/raw/upgrade, true, false)", "spi(true)", "mcu.upgrade()", "spi(false)"},
     UPGRADE_STATE_INPROGRESS_MCU,
     kUnfinished,
     [] { fake::mcu().upgrade.returns(-3); }},
    {"postUpgrade",
     130,
     {"mcu.preUpgrade(/raw/upgrade, true, false)", "spi(true)", "mcu.upgrade()", "mcu.postUpgrade()",
      "spi(false)"},
     UPGRADE_STATE_INPROGRESS_MCU,
     kUnfinished,
     [] { fake::mcu().postUpgrade.returns(-3); }},
};

class FailingMcuStep : public OneByOne, public testing::WithParamInterface<McuStep> {};

TEST_P(FailingMcuStep, ends_the_flash_with_the_link_off) {
    GetParam().fail();
    EXPECT_EQ(flash(kMcuOnly), -1);
    EXPECT_EQ(driverCalls(), GetParam().calls);
}

TEST_P(FailingMcuStep, is_logged_with_its_number_and_the_result) {
    GetParam().fail();
    EXPECT_EQ(flash(kMcuOnly), -1);
    const std::string number = std::to_string(GetParam().line);
    EXPECT_THAT(fake::log().linesAtLevel(1),
                ElementsAre("file:upgrade/upgrade_interface, func:upgrade_mcu_local line:" + number +
                            " upgrade/upgrade_interface upgrade_mcu_local " + number + " error!!!\n"));
    EXPECT_EQ(fake::log().lines().back().text, "upgrade_mcu_local ---, ret is -1\n");
    EXPECT_EQ(fake::log().lines().back().level, 3);
}

TEST_P(FailingMcuStep, leaves_state_and_recorded_version_as_the_step_found_them) {
    GetParam().fail();
    EXPECT_EQ(flash(kMcuOnly), -1);
    EXPECT_EQ(proc->state, GetParam().state);
    EXPECT_EQ(fake::node().count(), GetParam().state == 0 ? 0U : 1U);
    EXPECT_EQ(recordedMcuVersion(), GetParam().mcuVersion);
}

INSTANTIATE_TEST_SUITE_P(Each, FailingMcuStep, testing::ValuesIn(kMcuSteps),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_F(OneByOne, a_link_that_refuses_is_not_waited_for) {
    fake::spi().returns(-1);
    spy::sleeps().clear();
    EXPECT_EQ(flash(kMcuOnly), -1);
    EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), spy::kSecond), 0U);
    EXPECT_TRUE(fake::notLogged(3, "UPGRADE_Mcu start ...\n"));
}

TEST_F(OneByOne, a_link_that_does_not_switch_off_is_no_failure) {
    fake::spi().runs([](bool on) { return on ? 0 : -1; });
    EXPECT_EQ(flash(kMcuOnly), 0);
    EXPECT_TRUE(fake::nothingLoggedAtLevel(1));
}

TEST_F(OneByOne, a_failed_mcu_leaves_the_mpu_flashed) {
    fake::mcu().upgrade.returns(-1);
    EXPECT_EQ(flash(kBoth), -1);
    EXPECT_EQ(fake::calls().count("mpu.postUpgrade()"), 1U);
    EXPECT_TRUE(fake::logged(3, "upgrade_mpu: ret is 0;\n"));
}

// --- the job -------------------------------------------------------------------------------------

class FlashingJob : public Flashing {
  protected:
    static int process(UpgradeMpuMcuInput& input, int& output) {
        AsyncUpgradeMpuMcu runner(nullptr, nullptr);
        return runner.process(input, output);
    }
    static UpgradeMpuMcuInput input(int32_t type) {
        UpgradeMpuMcuInput made;
        made.type = type;
        made.fwPath = kFirmware;
        made.flag = kAll;
        return made;
    }
};

static_assert(std::is_base_of_v<COMMON_YR::AsyncProc<UpgradeMpuMcuInput, int>, AsyncUpgradeMpuMcu>);
static_assert(std::is_base_of_v<COMMON_YR::InitOk, UpgradeLib>);
static_assert(!std::is_polymorphic_v<COMMON_YR::InitOk>);
static_assert(std::has_virtual_destructor_v<UpgradeLib>);
static_assert(std::is_base_of_v<UpgradeLib, UpgradeMpu> && std::is_base_of_v<UpgradeLib, UpgradeMcu>);

TEST_F(FlashingJob, of_kind_0_flashes_the_mpu) {
    UpgradeMpuMcuInput job = input(0);
    int output = 7;
    EXPECT_EQ(process(job, output), 0);
    EXPECT_EQ(output, 0);
    EXPECT_THAT(driverCalls(), ElementsAre("mpu.preUpgrade(/raw/upgrade, true, true)", "mpu.upgrade()",
                                           "mpu.postUpgrade()"));
}

TEST_F(FlashingJob, of_kind_1_flashes_the_mcu) {
    UpgradeMpuMcuInput job = input(1);
    int output = 7;
    EXPECT_EQ(process(job, output), 0);
    EXPECT_EQ(output, 0);
    EXPECT_THAT(driverCalls(), ElementsAre("mcu.preUpgrade(/raw/upgrade, true, false)", "spi(true)",
                                           "mcu.upgrade()", "mcu.postUpgrade()", "spi(false)"));
}

TEST_F(FlashingJob, hands_out_a_failure_as_output_and_result) {
    fake::mpu().upgrade.returns(-9);
    fake::mcu().upgrade.returns(-9);
    for (const int32_t type : {0, 1}) {
        UpgradeMpuMcuInput job = input(type);
        int output = 7;
        EXPECT_EQ(process(job, output), -1) << type;
        EXPECT_EQ(output, -1) << type;
    }
}

TEST_F(FlashingJob, of_an_unknown_kind_is_refused) {
    for (const int32_t type : {2, -1, INT32_MAX, INT32_MIN}) {
        UpgradeMpuMcuInput job = input(type);
        int output = 7;
        EXPECT_EQ(process(job, output), -1000) << type;
        EXPECT_EQ(output, -1000) << type;
    }
    EXPECT_THAT(driverCalls(), IsEmpty());
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(FlashingJob, callbacks_keep_the_output_and_not_the_result) {
    // The MPU's job does not start; what its callback is told takes its place.
    fake::mcu().upgrade.runs([] {
        int output = 0;
        AsyncUpgradeMpuMcu::mpuCb(-5, output);
        return 0;
    });
    spy::failThreads({true, false});
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kBoth, false), 0);

    fake::mcu().upgrade.returns(0);
    fake::mpu().upgrade.runs([] {
        int output = -1;
        AsyncUpgradeMpuMcu::mcuCb(0, output);
        return 0;
    });
    spy::failThreads({false, true});
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kBoth, false), -999);

    fake::mpu().upgrade.runs([] {
        int output = 0;
        AsyncUpgradeMpuMcu::mcuCb(-5, output);
        return 0;
    });
    spy::failThreads({false, true});
    EXPECT_EQ(UPGRADE_mpu_mcu(kFirmware, kBoth, false), 0);
}

// --- activation and the driver interface ---------------------------------------------------------

TEST_F(Flashing, activation_switches_the_mpu_whatever_the_argument) {
    EXPECT_EQ(UPGRADE_activatePartition(0), 0);
    EXPECT_EQ(UPGRADE_activatePartition(5), 0);
    EXPECT_THAT(driverCalls(), ElementsAre("mpu.activate(true)", "mpu.activate(true)"));
}

TEST_F(Flashing, activation_returns_what_the_driver_returns) {
    for (const int result : {0, 7, -4}) {
        fake::mpu().activate.returns(result);
        EXPECT_EQ(UPGRADE_activatePartition(0), result);
    }
}

TEST_F(Flashing, activation_without_an_mpu_driver_fails) {
    proc->mpu.reset();
    EXPECT_LT(UPGRADE_activatePartition(0), 0);
}

TEST(UpgradeLibBase, starts_with_its_name_no_path_and_not_usable) {
    const UpgradeLib plain;
    EXPECT_EQ(plain.name, "");
    EXPECT_EQ(plain.fwPath, "");
    EXPECT_EQ(plain.reserved, -1);
    EXPECT_FALSE(plain.initOk);
    EXPECT_EQ(UpgradeLib("upgradeMcu").name, "upgradeMcu");
}

TEST(UpgradeLibBase, keeps_the_firmware_path) {
    UpgradeLib plain;
    plain.setFwPath("/raw/upgrade");
    EXPECT_EQ(plain.fwPath, "/raw/upgrade");
}

TEST(UpgradeLibBase, every_operation_succeeds) {
    UpgradeLib plain;
    EXPECT_EQ(plain.init(), 0);
    EXPECT_EQ(plain.preUpgrade("/raw/upgrade", true, false), 0);
    EXPECT_EQ(plain.upgrade(), 0);
    EXPECT_EQ(plain.postUpgrade(), 0);
    EXPECT_EQ(plain.activate(true), 0);
    EXPECT_EQ(plain.fwPath, "");
}

TEST(UpgradeLibBase, a_driver_is_deleted_through_its_interface) {
    fake::reset();
    std::unique_ptr<UpgradeLib> driver = std::make_unique<UpgradeMcu>();
    driver.reset();
    EXPECT_EQ(fake::calls().count("~mcu()"), 1U);
}

// --- the records ---------------------------------------------------------------------------------

TEST(FlashingRecords, flags_stand_in_the_order_bootloader_mpu_mcu) {
    static_assert(sizeof(UPGRADE_FLAG_T) == 3);
    const UPGRADE_FLAG_T flag{true, false, true};
    EXPECT_TRUE(flag.bld);
    EXPECT_FALSE(flag.mpu);
    EXPECT_TRUE(flag.mcu);
}

TEST(FlashingRecords, a_job_is_described_by_kind_path_and_flags) {
    const UpgradeMpuMcuInput input{1, "/raw/upgrade", {true, false, true}};
    EXPECT_EQ(input.type, 1);
    EXPECT_EQ(input.fwPath, "/raw/upgrade");
    EXPECT_TRUE(input.flag.mcu);
    static_assert(std::is_same_v<decltype(UpgradeMpuMcuInput::type), int32_t>);
}

}  // namespace
