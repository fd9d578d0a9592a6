#include "tools/upgradectl/history_view.h"

#include <gtest/gtest.h>

namespace {

using kavro::agent::HistoryEntry;
using upgradectl::historyJson;
using upgradectl::historyText;

HistoryEntry entry(const std::string& event, const std::string& outcome) {
    HistoryEntry made;
    made.time = "2026-11-22T10:00:00Z";
    made.event = event;
    made.outcome = outcome;
    return made;
}

TEST(HistoryView, without_entries_says_so_to_people_and_nothing_to_programs) {
    EXPECT_EQ(historyText({}), "nothing was recorded yet\n");
    EXPECT_EQ(historyJson({}), "");
}

TEST(HistoryView, shows_an_entry_a_line_in_columns) {
    HistoryEntry install = entry("install", "ok");
    install.before = "V01.104.007.002";
    install.release = "V01.105.008.003";
    install.package = "/firmware/camera.pkg";
    install.by = "root: upgradectl install /firmware/camera.pkg";
    HistoryEntry activate = entry("activate", "flash_failed");
    activate.release = "V01.105.008.003";
    activate.text = "no slot";
    EXPECT_EQ(historyText({install, activate, entry("repair", "")}),
              "2026-11-22T10:00:00Z  install   ok            V01.104.007.002 -> V01.105.008.003  "
              "/firmware/camera.pkg; by root: upgradectl install /firmware/camera.pkg\n"
              "2026-11-22T10:00:00Z  activate  flash_failed  V01.105.008.003                     no slot\n"
              "2026-11-22T10:00:00Z  repair    -             -\n");
}

TEST(HistoryView, escapes_what_would_move_the_cursor_or_end_the_line) {
    HistoryEntry made = entry("install\x1b[2J", "ok\n");
    made.before = "\r";
    made.release = "\x9b";
    made.package = "/tmp/\x1b";
    made.by = "me\n";
    EXPECT_EQ(historyText({made}),
              "2026-11-22T10:00:00Z  install\\x1b[2J  ok\\x0a  \\x0d -> \\x9b  /tmp/\\x1b; by me\\x0a\n");
}

TEST(HistoryView, tells_programs_the_entries_as_they_are_recorded) {
    const HistoryEntry made = entry("install", "ok");
    EXPECT_EQ(historyJson({made, made}),
              kavro::agent::historyLine(made) + "\n" + kavro::agent::historyLine(made) + "\n");
}

}  // namespace
