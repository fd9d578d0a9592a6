#include "tools/upgradectl/run_view.h"

#include <gtest/gtest.h>

namespace {

using upgradectl::plainLine;
using upgradectl::RunStatus;
using upgradectl::terminalLine;

constexpr RunStatus kFlashing = {6, 3, 50, 83.4};

TEST(RunView, a_plain_line_tells_time_progress_stage_and_state) {
    EXPECT_EQ(plainLine(kFlashing), "  83.4 s   50 %  stage FLASHING_START, state INPROGRESS_MCU");
}

TEST(RunView, a_terminal_line_has_a_bar_of_the_progress) {
    const std::string line = terminalLine(kFlashing, 80);
    EXPECT_EQ(line, "[####################....................]  50 %  FLASHING_START  1:23");
}

TEST(RunView, the_bar_is_empty_at_the_start_and_full_at_the_end) {
    EXPECT_EQ(terminalLine({1, 0, 0, 0}, 80).substr(0, 43), "[" + std::string(40, '.') + "] ");
    EXPECT_EQ(terminalLine({8, 4, 100, 1}, 80).substr(0, 43), "[" + std::string(40, '#') + "] ");
}

TEST(RunView, a_narrow_terminal_gets_no_bar) {
    EXPECT_EQ(terminalLine(kFlashing, 40), " 50 %  FLASHING_START  1:23");
}

TEST(RunView, a_line_stays_within_every_width) {
    for (int columns = 0; columns < 200; ++columns) {
        const std::size_t limit = columns > 0 ? static_cast<std::size_t>(columns - 1) : 0;
        EXPECT_LE(terminalLine({3, 2, 100, 5999}, columns).size(), limit) << columns;
    }
}

TEST(RunView, a_progress_out_of_range_keeps_the_bar_in_its_place) {
    EXPECT_EQ(terminalLine({6, 2, 250, 0}, 80).substr(0, 42), "[" + std::string(40, '#') + "]");
    EXPECT_EQ(terminalLine({6, 2, -5, 0}, 80).substr(0, 42), "[" + std::string(40, '.') + "]");
}

TEST(RunView, unknown_stage_and_state_are_told_as_unknown) {
    EXPECT_EQ(plainLine({77, 5, 0, 0}), "   0.0 s    0 %  stage unknown, state unknown");
}

}  // namespace
