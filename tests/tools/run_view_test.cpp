#include "tools/upgradectl/run_view.h"

#include <gtest/gtest.h>

#include "tests/tools/json_support.h"
#include "tests/tools/output_capture.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/run_events.h"

namespace {

using kavro::agent::RunObserver;
using tool_test::capturedOutput;
using tool_test::capturedTerminal;
using tool_test::eventsIn;
using upgradectl::ExitCode;
using upgradectl::makeRunView;
using upgradectl::OutputForm;
using upgradectl::OwnOutput;
using upgradectl::plainLine;
using upgradectl::RunRecord;
using upgradectl::RunStatus;
using upgradectl::terminalLine;

constexpr RunStatus kFlashing = {6, 3, 50, 83.4, 130.2};

RunStatus withProgress(int progress) {
    RunStatus status = kFlashing;
    status.progress = progress;
    return status;
}

TEST(RunView, a_plain_line_tells_time_progress_stage_and_state) {
    EXPECT_EQ(plainLine(kFlashing), "  83.4 s   50 %  stage FLASHING_START, state INPROGRESS_MCU");
}

struct Width {
    int columns;
    const char* line;
};

TEST(RunView, a_terminal_line_drops_what_has_no_room) {
    constexpr Width kWidths[] = {
        {100, "[####################....................]  50 %  FLASHING_START    1:23   2:10 left"},
        {60, "[#######........]  50 %  FLASHING_START    1:23   2:10 left"},
        {50, " 50 %  FLASHING_START    1:23   2:10 left"},
        {42, " 50 %  FLASHING_START    1:23   2:10 left"},
        {41, " 50 %  FLASHING_START    2:10 left"},
        {34, " 50 %  FLASHING_START "},
        {22, " 50 %"},
        {4, " 50"},
        {1, ""},
        {0, ""},
    };
    for (const Width& width : kWidths) {
        EXPECT_EQ(terminalLine(kFlashing, width.columns), width.line) << width.columns;
    }
}

TEST(RunView, the_bar_is_empty_at_the_start_and_full_at_the_end) {
    EXPECT_EQ(terminalLine(withProgress(0), 100).substr(0, 43), "[" + std::string(40, '.') + "] ");
    EXPECT_EQ(terminalLine(withProgress(100), 100).substr(0, 43), "[" + std::string(40, '#') + "] ");
}

TEST(RunView, a_line_stays_within_every_width) {
    for (int columns = 0; columns < 200; ++columns) {
        const std::size_t limit = columns > 0 ? static_cast<std::size_t>(columns - 1) : 0;
        EXPECT_LE(terminalLine({3, 2, 100, 599999, 599999.0}, columns).size(), limit) << columns;
    }
}

TEST(RunView, a_progress_out_of_range_keeps_the_bar_in_its_place) {
    EXPECT_EQ(terminalLine(withProgress(250), 100).substr(0, 42), "[" + std::string(40, '#') + "]");
    EXPECT_EQ(terminalLine(withProgress(-5), 100).substr(0, 42), "[" + std::string(40, '.') + "]");
}

TEST(RunView, an_unknown_rest_is_told_as_such) {
    EXPECT_EQ(terminalLine({6, 3, 50, 83.4, std::nullopt}, 45), " 50 %  FLASHING_START    1:23  --:-- left");
}

TEST(RunView, unknown_stage_and_state_are_told_as_unknown) {
    EXPECT_EQ(plainLine({77, 5, 0, 0, std::nullopt}), "   0.0 s    0 %  stage unknown, state unknown");
}

RunRecord endOf(int exitCode, const std::string& outcome, const std::string& next, double seconds) {
    RunRecord record;
    record.outcome = outcome;
    record.nextStep = next;
    record.seconds = seconds;
    if (exitCode != 0) {
        record.error =
            kavro::Error{static_cast<kavro::ErrorCode>(exitCode), outcome, next, {"no room", "x"}, {}};
    }
    return record;
}

// What a view shows of a short run.
void showRun(OutputForm form) {
    const OwnOutput output;
    const std::unique_ptr<RunObserver> view = makeRunView(output, form);
    view->begin({"install", "a\nb\xff.pkg", "V01.105.008.003", "", 0.25});
    view->show({1, 0, 0, 0.5, 236.0});
    view->show({1, 0, 3, 0.6, 235.9});
    view->notice("giving up...", 0.7);
    view->show({2, 2, 7, 1.5, std::nullopt});
    view->end(endOf(0, "installed", "restart", 2));
}

TEST(RunView, plain_lines_come_with_each_change_and_each_tenth) {
    EXPECT_EQ(capturedOutput([] { showRun(OutputForm::kPlain); }),
              "   0.5 s    0 %  stage INIT, state NONE\n"
              "giving up...\n"
              "   1.5 s    7 %  stage START, state INPROGRESS_MPU\n"
              "installed\n"
              "  next: restart\n");
}

TEST(RunView, a_terminal_shows_one_line_that_is_drawn_again_and_notices_that_stay) {
    EXPECT_EQ(capturedTerminal(30, [] { showRun(OutputForm::kTerminal); }),
              "\r\x1b[K  0 %  INIT           "
              "\r\x1b[K  3 %  INIT           "
              "\r\x1b[Kgiving up...\n"
              "\r\x1b[K  7 %  START          \n"
              "installed\n"
              "  next: restart\n");
}

TEST(RunView, a_terminals_line_that_is_the_same_is_not_drawn_again) {
    const std::string drawn = capturedTerminal(100, [] {
        const OwnOutput output;
        const std::unique_ptr<RunObserver> view = makeRunView(output, OutputForm::kTerminal);
        view->show(kFlashing);
        view->show(kFlashing);
    });
    EXPECT_EQ(drawn, "\r\x1b[K" + terminalLine(kFlashing, 100));
}

TEST(RunEvents, tell_a_run_one_object_a_line) {
    const std::string text = capturedOutput([] { showRun(OutputForm::kJson); });
    EXPECT_EQ(
        text,
        R"({"command":"install","current_version":null,"event":"begin","package":"a\nb\ufffd.pkg",)"
        R"("package_version":"V01.105.008.003","seconds":0.25})"
        "\n"
        R"({"event":"stage","seconds":0.5,"stage":"INIT"})"
        "\n"
        R"({"event":"state","seconds":0.5,"state":"NONE"})"
        "\n"
        R"({"event":"progress","percent":0,"remaining_seconds":236.0,"seconds":0.5})"
        "\n"
        R"({"event":"progress","percent":3,"remaining_seconds":235.9,"seconds":0.6})"
        "\n"
        R"({"event":"notice","seconds":0.7,"text":"giving up..."})"
        "\n"
        R"({"event":"stage","seconds":1.5,"stage":"START"})"
        "\n"
        R"({"event":"state","seconds":1.5,"state":"INPROGRESS_MPU"})"
        "\n"
        R"({"event":"progress","percent":7,"remaining_seconds":null,"seconds":1.5})"
        "\n"
        R"({"device":[],"event":"end","exit_code":0,"message":"installed","next":"restart","result":"done","seconds":2.0})"
        "\n");
    EXPECT_EQ(eventsIn(text).size(), 10U);
}

struct ResultName {
    ExitCode code;
    const char* name;
};

TEST(RunEvents, name_the_result_by_the_exit_code) {
    constexpr ResultName kNames[] = {
        {ExitCode::kOk, "done"},          {ExitCode::kOther, "failed"},
        {ExitCode::kUsage, "usage"},      {ExitCode::kRefused, "refused"},
        {ExitCode::kGivenUp, "given_up"}, {ExitCode::kFlashFailed, "flash_failed"},
    };
    for (const ResultName& row : kNames) {
        const std::vector<Json::Value> events = eventsIn(capturedOutput([&] {
            const OwnOutput output;
            upgradectl::makeRunEvents(output)->end(endOf(static_cast<int>(row.code), "m", "n", 1));
        }));
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0]["result"], row.name);
        EXPECT_EQ(events[0]["device"].size(), row.code == ExitCode::kOk ? 0U : 2U);
        EXPECT_EQ(events[0]["exit_code"].asInt(), static_cast<int>(row.code));
    }
}

}  // namespace
