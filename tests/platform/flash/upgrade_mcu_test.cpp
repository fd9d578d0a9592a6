// The flash driver of the microcontroller against the emulated one, which starts with version 7.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <string>

#include "base/file_descriptor.h"
#include "base/mcu_image.h"
#include "common/board.h"
#include "common/flash_driver.h"
#include "common/message_node.h"
#include "tests/platform/captured_log.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/small_stack.h"

namespace {

using testsupport::applicationOf;
using testsupport::Bytes;
using testsupport::McuEmulator;

const std::string kConfig = "/etc/kavro/platform.json";
const std::string kFirmware = "/raw/upgrade";
const std::string kApplication = kFirmware + "/mcu_flash_app.s19";
const std::string kDriver = kFirmware + "/mcu_flash_drv.s19";
const std::string kResetRequest = "/dev/kavro-mcu/reset_request";

class Mcu : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        putRelease(9);
        ASSERT_TRUE(mcu.start());
    }

    static void putRelease(std::uint32_t version) { putApplication(applicationOf(version)); }

    static void putApplication(const std::vector<kavro::Segment>& segments) {
        testsupport::writeFile(kApplication, testsupport::sRecordFile(segments));
        testsupport::writeFile(kDriver, testsupport::sRecordFile(testsupport::flashDriver()));
    }

    // As the upgrade manager goes about it: the programming link is on while the driver works.
    static int install(UpgradeMcu& driver) {
        if (driver.init() < 0) {
            return -1;
        }
        if (driver.preUpgrade(kFirmware, true, false) < 0) {
            return -2;
        }
        int result = velSpiDevCtrl(nullptr, true) < 0 ? -3 : 0;
        if (result == 0 && driver.upgrade() < 0) {
            result = -4;
        }
        if (result == 0 && driver.postUpgrade() < 0) {
            result = -5;
        }
        EXPECT_GE(velSpiDevCtrl(nullptr, false), result == 0 ? 0 : -1);
        return result;
    }
    static int install() {
        UpgradeMcu driver;
        return install(driver);
    }

    [[nodiscard]] std::string flash() const { return testsupport::readFile(mcu.flashFile()); }

    // Whether a request of this service was made since the microcontroller was switched on.
    [[nodiscard]] bool wasAsked(const std::string& service) const {
        return mcu.log().find(service) != std::string::npos;
    }

    // preUpgrade must refuse and say why before the microcontroller is asked anything; no upgrade may follow.
    void expectRefused(std::initializer_list<std::string> reasons) {
        ASSERT_TRUE(mcu.start());
        UpgradeMcu driver;
        ASSERT_EQ(driver.init(), 0);
        EXPECT_LT(driver.preUpgrade(kFirmware, true, false), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_LT(driver.upgrade(), 0);
        EXPECT_LT(driver.postUpgrade(), 0);
        EXPECT_FALSE(wasAsked("request")) << mcu.log();
    }

    // A whole installation in spite of the faults.
    void expectSurvived(const std::vector<std::string>& faults, const std::string& note) {
        ASSERT_TRUE(mcu.start(faults));
        EXPECT_EQ(install(), 0) << mcu.log();
        EXPECT_EQ(velGetMcuVersion(nullptr), 9);
        EXPECT_TRUE(wasAsked(note)) << "the fault did not strike: " << mcu.log();
    }

    // A failure with that reason; without the faults the next installation succeeds.
    void expectFailed(const std::vector<std::string>& faults, std::initializer_list<std::string> reasons) {
        ASSERT_TRUE(mcu.start(faults));
        EXPECT_LT(install(), -3) << mcu.log();
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        ASSERT_TRUE(mcu.start());
        EXPECT_NE(velGetMcuVersion(nullptr), 9);
        EXPECT_EQ(install(), 0) << mcu.log();
        EXPECT_EQ(velGetMcuVersion(nullptr), 9);
    }

    McuEmulator mcu;
};

TEST_F(Mcu, driver_has_its_name) {
    EXPECT_EQ(UpgradeMcu().name, "upgradeMcu");
}

TEST_F(Mcu, application_is_programmed_and_reports_its_version) {
    UpgradeMcu driver;
    EXPECT_EQ(install(driver), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
    EXPECT_EQ(driver.activate(true), 0);
    EXPECT_FALSE(testsupport::loggedWith(1, {})) << "an error was logged";
    mcu.stop();
    EXPECT_EQ(mcu.version(), 9) << "it must last over a loss of power";
}

TEST_F(Mcu, progress_is_what_was_sent) {
    COMMON_YR::BoardProgress progress;
    boardReadProgress(progress);
    EXPECT_EQ(progress.mcu.total, 0);
    ASSERT_EQ(install(), 0);
    boardReadProgress(progress);
    std::size_t bytes = 0;
    for (const auto& segments : {applicationOf(9), testsupport::flashDriver()}) {
        for (const kavro::Segment& segment : segments) {
            bytes += segment.bytes.size();
        }
    }
    EXPECT_EQ(progress.mcu.total, static_cast<long long>(bytes));
    EXPECT_EQ(progress.mcu.done, progress.mcu.total);
}

TEST_F(Mcu, flash_holds_boot_loader_application_and_erased_gaps_and_rest) {
    auto application = applicationOf(3, 5001);
    application.push_back({0x0000A001, Bytes(3000, 0x77)});
    application.push_back({0x0007FFFE, Bytes{1, 2}});
    putApplication(application);
    const std::string bootLoader = flash().substr(0, kavro::kMcuRecordStart);
    ASSERT_EQ(install(), 0) << mcu.log();
    const std::string after = flash();
    EXPECT_TRUE(after.substr(0, kavro::kMcuRecordStart) == bootLoader);
    std::string expected(kavro::kMcuApplicationBytes, '\xFF');
    for (const kavro::Segment& segment : application) {
        std::copy(segment.bytes.begin(), segment.bytes.end(),
                  expected.begin() + (segment.address - kavro::kMcuApplicationStart));
    }
    EXPECT_TRUE(after.substr(kavro::kMcuApplicationStart) == expected);
}

TEST_F(Mcu, flash_driver_of_several_sections_is_loaded) {
    testsupport::writeFile(kDriver, testsupport::sRecordFile({{kavro::kMcuRamStart, Bytes(1500, 1)},
                                                              {kavro::kMcuRamStart + 0x1000, Bytes(1, 2)},
                                                              {kavro::kMcuRamStart + 0xFFF0, Bytes(16, 3)}}));
    EXPECT_EQ(install(), 0) << mcu.log();
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
}

TEST_F(Mcu, whole_sequence_fits_on_the_stack_of_a_flashing_job) {
    ASSERT_TRUE(testsupport::runOnSmallStack([&] { EXPECT_EQ(install(), 0); }));
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
}

TEST_F(Mcu, one_driver_object_installs_again_and_again) {
    UpgradeMcu driver;
    for (const std::uint32_t number : {10U, 11U, 3U}) {
        putRelease(number);
        ASSERT_EQ(install(driver), 0);
        EXPECT_EQ(velGetMcuVersion(nullptr), static_cast<int>(number));
    }
}

TEST_F(Mcu, version_may_be_asked_for_between_all_operations) {
    UpgradeMcu driver;
    ASSERT_EQ(driver.init(), 0);
    ASSERT_EQ(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 7);
    ASSERT_GE(velSpiDevCtrl(nullptr, true), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 7);
    ASSERT_EQ(driver.upgrade(), 0);
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_EQ(driver.postUpgrade(), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
}

TEST_F(Mcu, init_touches_nothing_and_succeeds_without_a_microcontroller) {
    mcu.stop();
    UpgradeMcu driver;
    EXPECT_EQ(driver.init(), 0);
    EXPECT_EQ(driver.init(), 0) << "may be called again";
    EXPECT_FALSE(testsupport::exists(mcu.socketPath() + ".lock"));
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mcu, init_fails_when_the_configuration_names_no_usable_link) {
    UpgradeMcu driver;
    testsupport::writeFile(kConfig, "{}");
    EXPECT_LT(driver.init(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UpgradeMcu: ", kConfig, "mcu.link is missing"}));
    EXPECT_LT(driver.preUpgrade(kFirmware, true, false), 0);
    testsupport::writeFile(kConfig, R"({"mcu": {"link": "can:0"}})");
    EXPECT_LT(driver.init(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kConfig, "\"can:0\" is none of"}));
    std::filesystem::remove(kConfig);
    EXPECT_LT(driver.init(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kConfig, "cannot be read: No such file"}));
}

TEST_F(Mcu, microcontroller_without_power_fails_the_check) {
    mcu.stop();
    UpgradeMcu driver;
    ASSERT_EQ(driver.init(), 0);
    EXPECT_LT(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"unix:" + mcu.socketPath(), "no microcontroller listens"}));
    EXPECT_LT(driver.upgrade(), 0);
}

TEST_F(Mcu, microcontroller_that_does_not_answer_fails_the_check) {
    ASSERT_TRUE(mcu.start({"drop=1.."}));
    UpgradeMcu driver;
    ASSERT_EQ(driver.init(), 0);
    EXPECT_LT(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"TesterPresent: no answer in 5 tries"}));
}

TEST_F(Mcu, microcontroller_without_an_application_gets_one) {
    mcu.stop();
    ASSERT_TRUE(mcu.format(McuEmulator::kNoApplication));
    ASSERT_TRUE(mcu.start());
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_EQ(install(), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
}

TEST_F(Mcu, missing_files_are_refused) {
    std::filesystem::remove(kApplication);
    expectRefused({kApplication, "cannot be opened"});
    putRelease(9);
    std::filesystem::remove(kDriver);
    expectRefused({kDriver, "cannot be opened"});
}

TEST_F(Mcu, damaged_records_are_refused_with_their_line) {
    std::string text = testsupport::readFile(kApplication);
    text[text.find("S3", 100) + 12] ^= 1;
    testsupport::writeFile(kApplication, text);
    expectRefused({kApplication + ": line 4: the checksum is wrong"});
    putRelease(9);
    testsupport::writeFile(kDriver, testsupport::sRecord(3, kavro::kMcuRamStart, {1}) + "\n");
    expectRefused({kDriver + ": line 1: the end record is missing, and there is no count of records"});
}

TEST_F(Mcu, overlapping_data_is_refused) {
    auto segments = applicationOf(9);
    segments.push_back({kavro::kMcuApplicationStart + 100, Bytes(4, 1)});
    testsupport::writeFile(kApplication, testsupport::sRecordFile(segments));
    expectRefused({kApplication + ": line 315: the data overlaps that of line 5"});
}

TEST_F(Mcu, data_outside_of_its_memory_is_refused) {
    auto segments = applicationOf(9);
    segments.push_back({0x00080000, Bytes(4, 1)});
    testsupport::writeFile(kApplication, testsupport::sRecordFile(segments));
    expectRefused(
        {kApplication + ": line 315: data at 0x00080000..0x00080003 is outside of 0x00008000..0x0007FFFF"});
    putRelease(9);
    testsupport::writeFile(kDriver, testsupport::sRecordFile(applicationOf(9)));
    expectRefused({kDriver + ": line 2: data at ", "is outside of 0x20000000..0x2000FFFF"});
}

TEST_F(Mcu, application_without_a_header_is_refused) {
    testsupport::writeFile(kApplication,
                           testsupport::sRecordFile({{kavro::kMcuApplicationStart, Bytes(64, 1)}}));
    expectRefused({kApplication, "no valid application header"});
}

TEST_F(Mcu, operations_out_of_order_are_refused) {
    UpgradeMcu driver;
    ASSERT_GE(velSpiDevCtrl(nullptr, true), 0);
    EXPECT_LT(driver.upgrade(), 0);
    EXPECT_LT(driver.postUpgrade(), 0);
    ASSERT_EQ(driver.init(), 0);
    EXPECT_LT(driver.upgrade(), 0);
    ASSERT_EQ(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_LT(driver.postUpgrade(), 0);
    EXPECT_LT(driver.upgrade(), 0) << "the sequence must start over";
    EXPECT_FALSE(wasAsked("DiagnosticSessionControl"));
    EXPECT_EQ(velGetMcuVersion(nullptr), 7);
}

TEST_F(Mcu, without_the_programming_link_nothing_is_programmed) {
    UpgradeMcu driver;
    ASSERT_EQ(driver.init(), 0);
    ASSERT_EQ(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_LT(driver.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(
        1, {"conditionsNotCorrect (0x22): the programming link is off, velSpiDevCtrl switches it on"}));
    EXPECT_LT(driver.postUpgrade(), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 7) << "it must go on running its application";
}

TEST_F(Mcu, failure_before_the_erasing_leaves_the_old_application_running) {
    ASSERT_TRUE(mcu.start({"refuse@31=3:72"}));  // link on, check of the flash driver, erasing
    EXPECT_LT(install(), 0);
    EXPECT_TRUE(testsupport::loggedWith(
        1, {"erasing the application: RoutineControl: generalProgrammingFailure (0x72)"}));
    EXPECT_EQ(velGetMcuVersion(nullptr), 7) << mcu.log();
}

TEST_F(Mcu, loss_of_power_while_programming_leaves_no_version_and_the_next_one_succeeds) {
    ASSERT_TRUE(mcu.start({"power-loss=5"}));
    EXPECT_LT(install(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"loading the application: TransferData: "}));
    EXPECT_EQ(mcu.waitForEnd(), McuEmulator::kPowerLostCode);
    EXPECT_EQ(mcu.version(), std::nullopt);
    ASSERT_TRUE(mcu.start());
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_EQ(install(), 0);
    EXPECT_EQ(velGetMcuVersion(nullptr), 9);
}

TEST_F(Mcu, one_wrong_bit_in_flash_is_found) {
    expectFailed({"corrupt=4"},
                 {"checking the application: the microcontroller's memory does not hold what was sent"});
}

TEST_F(Mcu, one_wrong_bit_in_the_flash_driver_is_found) {
    expectFailed({"corrupt=1"},
                 {"checking the flash driver: the microcontroller's memory does not hold what was sent"});
}

TEST_F(Mcu, refused_block_fails_the_upgrade) {
    expectFailed({"refuse@36=7:72"},
                 {"loading the application: TransferData: generalProgrammingFailure (0x72)"});
}

TEST_F(Mcu, application_that_is_not_accepted_fails_the_upgrade) {
    expectFailed({"refuse@31=5:24"},
                 {"making the application the one to run: RoutineControl: requestSequenceError (0x24)"});
}

TEST_F(Mcu, microcontroller_that_falls_silent_fails_the_upgrade) {
    expectFailed({"drop@36=6.."}, {"loading the application: TransferData: no answer in 5 tries"});
}

TEST_F(Mcu, lost_answers_are_survived) {
    expectSurvived({"lose@36=3..5", "lose@31=3", "lose@11=1", "lose@22=1"}, "[fault: lost]");
    EXPECT_TRUE(testsupport::loggedWith(2, {"mcu: TransferData: no answer within 500 ms, try 2 of 5"}));
}

TEST_F(Mcu, requests_that_are_not_heard_are_survived) {
    expectSurvived({"drop@36=3..5", "drop@31=3", "drop@37=1"}, "[fault: drop]");
}

TEST_F(Mcu, damaged_answers_are_survived) {
    expectSurvived({"damage@36=3..5", "damage@34=2", "damage@10=1"}, "[fault: damaged]");
}

TEST_F(Mcu, late_answers_are_survived) {
    expectSurvived({"delay@36=3..4:700", "delay@31=3:700"}, "ms late]");
}

TEST_F(Mcu, busy_microcontroller_is_survived) {
    expectSurvived({"busy@36=3..6", "busy@31=3..4", "busy@11=1"}, "busyRepeatRequest");
}

TEST_F(Mcu, pending_answers_are_survived) {
    expectSurvived({"pending@31=3:3"}, "after 3 response-pending");
}

TEST_F(Mcu, link_that_another_program_keeps_fails_the_check) {
    const kavro::FileDescriptor lock(
        open((mcu.socketPath() + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
    UpgradeMcu driver;
    ASSERT_EQ(driver.init(), 0);
    EXPECT_LT(driver.preUpgrade(kFirmware, true, false), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {mcu.socketPath() + ".lock: is in use by another program"}));
}

TEST_F(Mcu, reset_request_reaches_the_microcontroller) {
    EXPECT_EQ(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::exists(kResetRequest));
}

TEST_F(Mcu, reset_request_without_a_microcontroller_fails) {
    mcu.stop();
    EXPECT_LT(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UPGRADE_request_reboot: ", "no microcontroller listens"}));
    testsupport::writeFile(kConfig, "{}");
    EXPECT_LT(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UPGRADE_request_reboot: ", kConfig}));
    EXPECT_FALSE(testsupport::exists(kResetRequest));
}

}  // namespace
