// history on a device.
#include "agent/history.h"

#include <gtest/gtest.h>

#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"

namespace {

using namespace tool_test;
using kavro::agent::HistoryEntry;
using kavro::agent::kHistoryFile;

void record(const std::string& event, const std::string& release) {
    HistoryEntry entry;
    entry.time = "2026-11-22T10:00:00Z";
    entry.event = event;
    entry.outcome = "ok";
    entry.release = release;
    entry.by = "root: camera";
    ASSERT_TRUE(kavro::agent::appendHistory(entry).ok());
}

TEST(HistoryCommand, of_a_new_device_says_that_nothing_was_recorded) {
    const ProgramResult result = upgradectl({"history"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "nothing was recorded yet\n");
    const ProgramResult json = upgradectl({"history", "--json"});
    EXPECT_EQ(json.exitCode, 0) << json.err;
    EXPECT_EQ(json.out, "");
}

TEST(HistoryCommand, tells_the_newest_last) {
    record("install", "V01.105.008.003");
    record("activate", "V01.105.008.003");
    const ProgramResult result = upgradectl({"history"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out,
              "2026-11-22T10:00:00Z  install   ok  V01.105.008.003  by root: camera\n"
              "2026-11-22T10:00:00Z  activate  ok  V01.105.008.003  by root: camera\n");
}

TEST(HistoryCommand, tells_a_program_an_object_a_line) {
    record("install", "V01.105.008.003");
    record("confirm", "V01.105.008.003");
    const ProgramResult result = upgradectl({"history", "--json"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::vector<Json::Value> entries = eventsIn(result.out);
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[1], parsed(R"({"event": "confirm", "outcome": "ok", "release": "V01.105.008.003",
                                     "time": "2026-11-22T10:00:00Z", "by": "root: camera"})"));
}

TEST(HistoryCommand, that_cannot_be_read_fails_and_says_why) {
    std::filesystem::create_directory(kHistoryFile);
    const ProgramResult result = upgradectl({"history"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(
        result.err,
        "upgradectl: '/config/upgrade_history.jsonl' is no regular file\n  next: remove what is there\n");
}

}  // namespace
