#include "tools/upgradectl/run_log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

using upgradectl::LogFollower;
using Lines = std::vector<std::string>;

void append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

class LogFollowing : public testing::Test {
  protected:
    const kavro_test::TempDir directory;
    const std::string log = directory / "device.log";
};

TEST_F(LogFollowing, begins_at_the_end_of_what_is_there) {
    append(log, "old\n");
    LogFollower follower(log);
    EXPECT_EQ(follower.newLines(), Lines());
    append(log, "new\nnewer\n");
    EXPECT_EQ(follower.newLines(), (Lines{"new", "newer"}));
    EXPECT_EQ(follower.newLines(), Lines());
}

TEST_F(LogFollowing, a_file_that_appears_is_read_from_its_start) {
    LogFollower follower(log);
    EXPECT_EQ(follower.newLines(), Lines());
    append(log, "first\n");
    EXPECT_EQ(follower.newLines(), Lines{"first"});
}

TEST_F(LogFollowing, a_line_is_given_when_it_is_whole) {
    LogFollower follower(log);
    append(log, "be");
    EXPECT_EQ(follower.newLines(), Lines());
    append(log, "gun\n");
    EXPECT_EQ(follower.newLines(), Lines{"begun"});
}

TEST_F(LogFollowing, a_file_that_was_moved_away_is_read_to_its_end_and_then_the_new_one) {
    LogFollower follower(log);
    append(log, "1\n");
    EXPECT_EQ(follower.newLines(), Lines{"1"});
    append(log, "2\n");
    ASSERT_EQ(std::rename(log.c_str(), (directory / "device.log.1").c_str()), 0);
    append(log, "3\n");
    EXPECT_EQ(follower.newLines(), (Lines{"2", "3"}));
    append(log, "4\n");
    EXPECT_EQ(follower.newLines(), Lines{"4"});
}

TEST_F(LogFollowing, a_file_that_was_removed_is_waited_for) {
    append(log, "old\n");
    LogFollower follower(log);
    ASSERT_EQ(std::remove(log.c_str()), 0);
    EXPECT_EQ(follower.newLines(), Lines());
    append(log, "new\n");
    EXPECT_EQ(follower.newLines(), Lines{"new"});
}

TEST_F(LogFollowing, a_file_that_was_emptied_is_read_from_its_start) {
    append(log, "a long line that was there before\n");
    LogFollower follower(log);
    std::ofstream(log, std::ios::trunc) << "new\n";
    EXPECT_EQ(follower.newLines(), Lines{"new"});
}

TEST_F(LogFollowing, a_line_longer_than_a_block_keeps_its_start) {
    LogFollower follower(log);
    append(log, std::string(100000, 'x') + "\nnext\n");
    const Lines lines = follower.newLines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].substr(0, 4096), std::string(4096, 'x'));
    EXPECT_EQ(lines[1], "next");
}

}  // namespace
