#include "tests/support/mcu_emulator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/device.h"

namespace {

using testsupport::exists;
using testsupport::McuEmulator;

class Mcu : public testsupport::DeviceTest {
  protected:
    McuEmulator mcu;
};

TEST_F(Mcu, is_formatted_at_its_first_start) {
    std::filesystem::remove(mcu.flashFile());
    ASSERT_TRUE(mcu.start());
    EXPECT_TRUE(exists("/dev/kavro-mcu/link"));
    EXPECT_EQ(mcu.version(), 7);
    EXPECT_NE(mcu.log().find("starts the application of version 7"), std::string::npos) << mcu.log();
}

TEST_F(Mcu, keeps_its_flash_memory_from_one_start_to_the_next) {
    ASSERT_TRUE(mcu.format(9));
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(mcu.stop(), 0);
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(mcu.version(), 9);
}

TEST_F(Mcu, has_no_version_without_an_application) {
    ASSERT_TRUE(mcu.format(McuEmulator::kNoApplication));
    EXPECT_EQ(mcu.version(), std::nullopt);
}

TEST_F(Mcu, leaves_neither_process_nor_socket_behind) {
    const std::vector<int> before = testsupport::processPids();
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(testsupport::newProcesses(before).size(), 1U);
    EXPECT_EQ(mcu.stop(), 0);
    EXPECT_TRUE(testsupport::newProcesses(before).empty());
    EXPECT_FALSE(exists("/dev/kavro-mcu/link"));
    EXPECT_FALSE(mcu.powerLost());
}

}  // namespace
