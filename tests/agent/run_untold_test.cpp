// A run of a process that has nowhere to tell how far it is.
#include <gtest/gtest.h>

#include "agent/run.h"
#include "agent/state.h"
#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/test_package.h"
#include "tests/tools/tool_support.h"

namespace {

TEST(UntoldRun, succeeds_and_others_know_only_that_there_is_one) {
    testsupport::McuEmulator mcu;
    ASSERT_TRUE(mcu.start());
    testsupport::TestPackage().setVersions(1, 105, 8, 3).writeTo("/tmp/release.pkg");
    testsupport::Program install({UPGRADECTL, "install", "/tmp/release.pkg"});
    ASSERT_TRUE(install.waitForOutput("stage FLASHING_START"));
    const std::optional<kavro::agent::RunInProgress> run = kavro::agent::readState().run;
    ASSERT_TRUE(run);
    EXPECT_EQ(run->pid, install.pid());
    EXPECT_EQ(run->stage, "");
    EXPECT_FALSE(run->percent);
    EXPECT_FALSE(testsupport::exists("/run/kavro/run.json"));
    EXPECT_EQ(install.wait().exitCode, 0);
}

}  // namespace
