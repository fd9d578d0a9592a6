// A device whose microcontroller has power.
#pragma once

#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"

namespace tool_test {

class PoweredDevice : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_TRUE(mcu.start());
    }

    testsupport::McuEmulator mcu;
};

}  // namespace tool_test
