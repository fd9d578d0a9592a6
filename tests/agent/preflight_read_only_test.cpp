// On a device whose work area cannot be written.
#include <gtest/gtest.h>

#include "tests/agent/preflight_support.h"
#include "tests/support/mcu_emulator.h"

namespace {

using namespace agent_test;

TEST(AgentPreflightReadOnly, work_area_is_told) {
    testsupport::McuEmulator mcu;
    ASSERT_TRUE(mcu.start());
    release().writeTo(kPackage);
    const kavro::agent::Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"not_writable"});
    EXPECT_EQ(preflight.obstacles[0].text, "'/raw' cannot be written: Read-only file system");
    EXPECT_EQ(preflight.obstacles[0].next, "mount /raw where it can be written");
}

}  // namespace
