#include "base/run_line.h"

#include <gtest/gtest.h>

namespace {

using kavro::runLineIn;

TEST(RunLine, a_line_of_a_run_tells_its_stage_and_state) {
    const auto line = runLineIn(
        "2026-11-21 10:30:59.123 [warning] &&&&& upgrade [stage FLASHING_START], [result INPROGRESS_MCU] "
        "&&&&&");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->stage, "FLASHING_START");
    EXPECT_EQ(line->state, "INPROGRESS_MCU");
}

TEST(RunLine, other_lines_tell_nothing) {
    EXPECT_FALSE(runLineIn(""));
    EXPECT_FALSE(runLineIn("2026-11-21 10:30:59.123 [info] upgrade flag mpu[1], mcu[1], bld[0];"));
    EXPECT_FALSE(runLineIn("&&&&& upgrade [stage START]"));
    EXPECT_FALSE(runLineIn("&&&&& upgrade [stage START], [result NONE"));
    EXPECT_FALSE(runLineIn("&&&&& upgrade [stage START], and then [result NONE] &&&&&"));
}

}  // namespace
