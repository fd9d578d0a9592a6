// The history of a device whose /config has room for 64 KiB, the bound of the history.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/history.h"
#include "tests/support/device.h"

namespace {

using kavro::ErrorCode;
using kavro::agent::appendHistory;
using kavro::agent::HistoryEntry;
using kavro::agent::kHistoryFile;
using testsupport::readFile;

class FullDisk : public testsupport::DeviceTest {};

HistoryEntry longEntry() {
    HistoryEntry entry;
    entry.event = "install";
    entry.text = std::string(kavro::agent::kMostHistoryTextBytes, 'x');
    return entry;
}

// Takes all the room that is left.
void fillDisk(const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    file << std::string(1U << 20, 'x') << std::flush;
    ASSERT_FALSE(file.good()) << "this is no small disk";
}

// Appends until it fails, and returns the error.
kavro::Error appendUntilError(std::string& before) {
    for (;;) {
        before = readFile(kHistoryFile);
        const auto result = appendHistory(longEntry());
        if (!result.ok()) {
            return result.error();
        }
    }
}

TEST_F(FullDisk, leaves_the_history_whole) {
    ASSERT_TRUE(appendHistory(longEntry()).ok());
    fillDisk("/config/filler");
    std::string before;
    const kavro::Error error = appendUntilError(before);
    EXPECT_EQ(error.code, ErrorCode::kOther);
    EXPECT_EQ(error.text, "'/config/upgrade_history.jsonl' cannot be written (No space left on device)");
    EXPECT_EQ(readFile(kHistoryFile), before);
    const std::size_t entries = kavro::agent::readHistory().value().size();
    EXPECT_GE(entries, 1U);

    std::filesystem::remove("/config/filler");
    EXPECT_TRUE(appendHistory(longEntry()).ok());
    EXPECT_EQ(kavro::agent::readHistory().value().size(), entries + 1);
}

TEST_F(FullDisk, leaves_a_history_whole_that_would_be_shortened) {
    std::string before;
    const kavro::Error error = appendUntilError(before);
    EXPECT_EQ(error.code, ErrorCode::kOther);
    EXPECT_EQ(error.text, "'/config/upgrade_history.jsonl' cannot be replaced (No space left on device)");
    EXPECT_EQ(readFile(kHistoryFile), before);
    EXPECT_EQ(testsupport::namesIn("/config"), std::vector<std::string>{"upgrade_history.jsonl"});
}

}  // namespace
