#include "tests/support/shell_recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/utility.h"

namespace {

class ShellRecorder : public testing::Test {
  protected:
    void SetUp() override { fake::resetCommands(); }
};

TEST_F(ShellRecorder, commands_run_and_are_recorded_in_order) {
    EXPECT_EQ(COMMON_YR::runSystem("test %s = %s", "a", "a"), 0);
    EXPECT_LT(COMMON_YR::runSystem("test %s = %s", "a", "100%"), 0);
    EXPECT_THAT(fake::commands(), testing::ElementsAre("test a = a", "test a = 100%"));
}

TEST_F(ShellRecorder, commands_with_a_failing_prefix_do_not_run) {
    fake::failCommands("tru");
    EXPECT_LT(COMMON_YR::runSystem("true"), 0);
    EXPECT_EQ(COMMON_YR::runSystem(": true"), 0);
    fake::resetCommands();
    EXPECT_EQ(COMMON_YR::runSystem("true"), 0);
}

}  // namespace
