// The flash driver of the microcontroller on the emulated device, whose microcontroller starts with
// version 7.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "common/flash_driver.h"
#include "platform/mcu/file_mcu_link.h"
#include "tests/platform/captured_log.h"
#include "tests/platform/flash/small_stack.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"

namespace {

using testsupport::applicationOf;
using testsupport::Bytes;

const std::string kConfig = "/etc/kavro/platform.json";
const std::string kFlash = "/dev/kavro-mcu/flash.bin";
const std::string kFirmware = "/raw/upgrade";
const std::string kApplication = kFirmware + "/mcu_flash_app.s19";
const std::string kDriver = kFirmware + "/mcu_flash_drv.s19";

class Mcu : public testing::Test {
  protected:
    void SetUp() override { putRelease(9); }

    static void putRelease(std::uint32_t version) {
        testsupport::writeFile(kApplication, testsupport::sRecordFile(applicationOf(version)));
        testsupport::writeFile(kDriver, testsupport::sRecordFile(testsupport::flashDriver()));
    }

    static std::optional<int> version() {
        std::string error;
        return kavro::FileMcuLink(kFlash).version(error);
    }

    static int install(UpgradeMcu& mcu) {
        if (mcu.init() < 0) {
            return -1;
        }
        if (mcu.preUpgrade(kFirmware, true, false) < 0) {
            return -2;
        }
        return mcu.upgrade() < 0 ? -3 : mcu.postUpgrade();
    }

    // preUpgrade must refuse and say why; the microcontroller's flash stays bit for bit, and no upgrade may
    // follow.
    static void expectRefused(std::initializer_list<std::string> reasons) {
        const std::string before = testsupport::readFile(kFlash);
        UpgradeMcu mcu;
        ASSERT_EQ(mcu.init(), 0);
        EXPECT_LT(mcu.preUpgrade(kFirmware, true, false), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_LT(mcu.upgrade(), 0);
        EXPECT_LT(mcu.postUpgrade(), 0);
        EXPECT_TRUE(testsupport::readFile(kFlash) == before) << "the flash was touched";
        EXPECT_EQ(version(), 7);
    }
};

TEST_F(Mcu, driver_has_its_name) {
    EXPECT_EQ(UpgradeMcu().name, "upgradeMcu");
}

TEST_F(Mcu, application_is_programmed_and_reports_its_version) {
    UpgradeMcu mcu;
    EXPECT_EQ(install(mcu), 0);
    EXPECT_EQ(version(), 9);
    std::string error;
    EXPECT_TRUE(kavro::FileMcuLink(kFlash).verify(applicationOf(9), error)) << error;
    EXPECT_EQ(mcu.activate(true), 0);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mcu, whole_sequence_fits_on_the_stack_of_a_flashing_job) {
    UpgradeMcu mcu;
    testsupport::runOnJobStack([&] { EXPECT_EQ(install(mcu), 0); });
    EXPECT_EQ(version(), 9);
}

TEST_F(Mcu, one_driver_object_installs_again_and_again) {
    UpgradeMcu mcu;
    for (const std::uint32_t number : {10U, 11U, 3U}) {
        putRelease(number);
        ASSERT_EQ(install(mcu), 0);
        EXPECT_EQ(version(), static_cast<int>(number));
    }
}

TEST_F(Mcu, init_fails_without_a_microcontroller) {
    UpgradeMcu mcu;
    std::filesystem::rename(kFlash, kFlash + ".away");
    EXPECT_LT(mcu.init(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kFlash, "cannot be opened"}));
    std::filesystem::rename(kFlash + ".away", kFlash);
    EXPECT_EQ(mcu.init(), 0) << "may be called again";
    testsupport::writeFile(kConfig, "{}");
    EXPECT_LT(mcu.init(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kConfig, "\"mcu\" names no \"flash\""}));
    EXPECT_LT(mcu.preUpgrade(kFirmware, true, false), 0);
}

TEST_F(Mcu, init_succeeds_on_a_microcontroller_without_an_application) {
    testsupport::writeFile(kFlash, std::string(kavro::kMcuFlashBytes, '\xFF'));
    UpgradeMcu mcu;
    EXPECT_EQ(install(mcu), 0);
    EXPECT_EQ(version(), 9);
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
    expectRefused({kApplication, "overlaps"});
}

TEST_F(Mcu, data_outside_of_its_memory_is_refused) {
    auto segments = applicationOf(9);
    segments.push_back({0x00080000, Bytes(4, 1)});
    testsupport::writeFile(kApplication, testsupport::sRecordFile(segments));
    expectRefused({kApplication, "data at 0x00080000..0x00080003 is outside of 0x00008000..0x0007FFFF"});
    putRelease(9);
    testsupport::writeFile(kDriver, testsupport::sRecordFile(applicationOf(9)));
    expectRefused({kDriver, "is outside of 0x20000000..0x2000FFFF"});
}

TEST_F(Mcu, application_without_a_header_is_refused) {
    testsupport::writeFile(kApplication,
                           testsupport::sRecordFile({{kavro::kMcuApplicationStart, Bytes(64, 1)}}));
    expectRefused({kApplication, "no valid application header"});
}

TEST_F(Mcu, operations_out_of_order_are_refused) {
    const std::string before = testsupport::readFile(kFlash);
    UpgradeMcu mcu;
    EXPECT_LT(mcu.upgrade(), 0);
    EXPECT_LT(mcu.postUpgrade(), 0);
    ASSERT_EQ(mcu.init(), 0);
    EXPECT_LT(mcu.upgrade(), 0);
    ASSERT_EQ(mcu.preUpgrade(kFirmware, true, false), 0);
    EXPECT_LT(mcu.postUpgrade(), 0);
    EXPECT_LT(mcu.upgrade(), 0) << "the sequence must start over";
    EXPECT_TRUE(testsupport::readFile(kFlash) == before);
}

TEST_F(Mcu, microcontroller_that_goes_away_fails_the_upgrade) {
    UpgradeMcu mcu;
    ASSERT_EQ(mcu.init(), 0);
    ASSERT_EQ(mcu.preUpgrade(kFirmware, true, false), 0);
    std::filesystem::remove(kFlash);
    EXPECT_LT(mcu.upgrade(), 0);
    EXPECT_LT(mcu.postUpgrade(), 0);
    EXPECT_FALSE(testsupport::exists(kFlash));
}

TEST_F(Mcu, damage_after_programming_is_found_by_post_upgrade) {
    UpgradeMcu mcu;
    ASSERT_EQ(mcu.init(), 0);
    ASSERT_EQ(mcu.preUpgrade(kFirmware, true, false), 0);
    ASSERT_EQ(mcu.upgrade(), 0);
    std::string flash = testsupport::readFile(kFlash);
    flash[kavro::kMcuApplicationStart + 1000] =
        static_cast<char>(flash[kavro::kMcuApplicationStart + 1000] ^ 1);
    testsupport::writeFile(kFlash, flash);
    EXPECT_LT(mcu.postUpgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kFlash, "does not hold what was written"}));
}

TEST_F(Mcu, flash_left_by_an_interrupted_programming_is_recovered_by_the_next) {
    std::string error;
    unsigned asked = 0;
    kavro::FileMcuLink link(kFlash);
    ASSERT_FALSE(link.program(
        {testsupport::flashDriver(), applicationOf(8)}, [&] { return ++asked < 150; }, error));
    ASSERT_EQ(version(), std::nullopt);
    UpgradeMcu mcu;
    EXPECT_EQ(install(mcu), 0);
    EXPECT_EQ(version(), 9);
}

TEST_F(Mcu, reset_request_reaches_the_microcontroller) {
    EXPECT_EQ(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::exists("/dev/kavro-mcu/reset_request"));
}

TEST_F(Mcu, reset_request_without_a_microcontroller_fails) {
    std::filesystem::remove(kFlash);
    EXPECT_LT(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UPGRADE_request_reboot", kFlash}));
    testsupport::writeFile(kConfig, "{}");
    EXPECT_LT(UPGRADE_request_reboot(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UPGRADE_request_reboot", kConfig}));
}

}  // namespace
