// The node's calls that reach the microcontroller, here the emulated one, which starts with version 7.
#include <gtest/gtest.h>

#include <filesystem>

#include "common/message_node.h"
#include "tests/platform/captured_log.h"
#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"

namespace {

using testsupport::loggedWith;
using testsupport::McuEmulator;

const std::string kConfig = "/etc/kavro/platform.json";

class McuCalls : public testsupport::DeviceTest {
  protected:
    [[nodiscard]] bool wasAsked(const std::string& request) const {
        return mcu.log().find(request) != std::string::npos;
    }

    McuEmulator mcu;
};

TEST_F(McuCalls, version_is_that_of_the_application_that_runs) {
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(velGetMcuVersion(nullptr), 7);
    mcu.stop();
    ASSERT_TRUE(mcu.format(2147483647));
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(velGetMcuVersion(nullptr), 2147483647);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(McuCalls, version_is_negative_without_an_application) {
    ASSERT_TRUE(mcu.format(McuEmulator::kNoApplication));
    ASSERT_TRUE(mcu.start());
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_TRUE(loggedWith(2, {"velGetMcuVersion: ", "the microcontroller runs no application"}));
}

TEST_F(McuCalls, programming_link_is_switched_on_and_off) {
    ASSERT_TRUE(mcu.start());
    EXPECT_GE(velSpiDevCtrl(nullptr, true), 0);
    EXPECT_TRUE(wasAsked("RoutineControl: 31 01 02 01")) << mcu.log();
    EXPECT_GE(velSpiDevCtrl(nullptr, false), 0);
    EXPECT_TRUE(wasAsked("RoutineControl: 31 02 02 01")) << mcu.log();
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(McuCalls, fail_without_power) {
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_LT(velSpiDevCtrl(nullptr, true), 0);
    EXPECT_LT(velSpiDevCtrl(nullptr, false), 0);
    EXPECT_TRUE(loggedWith(2, {"velGetMcuVersion: unix:/dev/kavro-mcu/link: no microcontroller listens"}));
    EXPECT_TRUE(loggedWith(1, {"velSpiDevCtrl: unix:/dev/kavro-mcu/link: no microcontroller listens"}));
}

TEST_F(McuCalls, fail_when_the_microcontroller_does_not_answer) {
    ASSERT_TRUE(mcu.start({"drop=1.."}));
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_TRUE(loggedWith(2, {"velGetMcuVersion: ", "TesterPresent: no answer in 5 tries of 500 ms each"}));
    EXPECT_LT(velSpiDevCtrl(nullptr, false), 0);
    EXPECT_TRUE(loggedWith(2, {"velSpiDevCtrl: ", "TesterPresent: no answer in 5 tries of 500 ms each"}));
}

TEST_F(McuCalls, fail_without_a_configured_link) {
    testsupport::writeFile(kConfig, "{}");
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_LT(velSpiDevCtrl(nullptr, false), 0);
    EXPECT_TRUE(loggedWith(2, {"velGetMcuVersion: ", kConfig, "mcu.link is missing"}));
    EXPECT_TRUE(loggedWith(2, {"velSpiDevCtrl: ", kConfig, "mcu.link is missing"}));
    std::filesystem::remove(kConfig);
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_TRUE(loggedWith(2, {"velGetMcuVersion: ", kConfig, "cannot be read: No such file"}));
}

}  // namespace
