// printLog into a file: what others find who follow it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro_test::slurp;
using kavro_test::spill;

constexpr const char* kConfig = "/etc/kavro/platform.json";
constexpr const char* kLog = "/tmp/device.log";
constexpr const char* kOlderLog = "/tmp/device.log.1";

void configure(const std::string& file, long long bytes) {
    spill(kConfig, R"({"log": {"syslog": false, "file": ")" + file + R"(", "file_bytes": )" +
                       std::to_string(bytes) + "}}");
}

std::vector<std::string> linesOf(const char* path) {
    std::istringstream text(slurp(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool endsWith(const std::string& line, const std::string& end) {
    return line.size() >= end.size() && line.compare(line.size() - end.size(), end.size(), end) == 0;
}

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

TEST(LogFile, holds_each_line_with_time_and_level) {
    configure(kLog, 100000);
    printLog(1, "failed %d\n", 7);
    printLog(3, "went on\n");
    const auto lines = linesOf(kLog);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(endsWith(lines[0], " [error] failed 7")) << lines[0];
    EXPECT_TRUE(endsWith(lines[1], " [info] went on")) << lines[1];
}

TEST(LogFile, holds_what_a_command_prints) {
    configure(kLog, 100000);
    EXPECT_EQ(COMMON_YR::runSystem("echo before the program has used its log"), 0);
    printLog(3, "begin\n");
    EXPECT_EQ(COMMON_YR::runSystem("printf 'one\\ntwo\\n'; echo three >&2"), 0);
    EXPECT_LT(COMMON_YR::runSystem("cat %s", "/nowhere"), 0);
    const auto lines = linesOf(kLog);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_TRUE(endsWith(lines[1], " [info] printf: one")) << lines[1];
    EXPECT_TRUE(endsWith(lines[3], " [info] printf: three")) << lines[3];
    EXPECT_TRUE(endsWith(lines[4], " [info] cat: cat: /nowhere: No such file or directory")) << lines[4];
}

TEST(LogFile, holds_the_beginning_of_what_a_command_prints_without_end) {
    configure(kLog, 10000000);
    printLog(3, "begin\n");
    EXPECT_EQ(COMMON_YR::runSystem("seq 100000"), 0);
    const auto lines = linesOf(kLog);
    ASSERT_GT(lines.size(), 100U);
    EXPECT_LT(lines.size(), 10000U);
    EXPECT_TRUE(endsWith(lines[100], " seq: 100")) << lines[100];
}

TEST(LogFile, is_appended_to_what_is_there) {
    configure(kLog, 100000);
    spill(kLog, "of the run before\n");
    printLog(2, "new\n");
    const auto lines = linesOf(kLog);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "of the run before");
}

TEST(LogFile, that_is_full_is_kept_as_the_older_one) {
    configure(kLog, 1000);
    for (int count = 0; count < 60; ++count) {
        printLog(3, "line %02d\n", count);
    }
    std::vector<std::string> lines = linesOf(kOlderLog);
    const std::vector<std::string> newer = linesOf(kLog);
    lines.insert(lines.end(), newer.begin(), newer.end());
    ASSERT_FALSE(newer.empty());
    ASSERT_LT(lines.size(), 60U);  // the oldest are gone, the others in order and whole
    for (std::size_t back = 0; back < lines.size(); ++back) {
        char expected[16];
        std::snprintf(expected, sizeof expected, "line %02d", static_cast<int>(59 - back));
        EXPECT_TRUE(endsWith(lines[lines.size() - 1 - back], expected)) << lines[lines.size() - 1 - back];
    }
    EXPECT_LE(slurp(kLog).size(), 1000U);
    EXPECT_LE(slurp(kOlderLog).size(), 1000U);
}

TEST(LogFile, of_several_processes_has_whole_lines_only) {
    configure(kLog, 1 << 20);
    constexpr int kProcesses = 4;
    constexpr int kLines = 500;
    for (int process = 0; process < kProcesses; ++process) {
        if (fork() == 0) {
            for (int count = 0; count < kLines; ++count) {
                printLog(3, "process %d line %03d end\n", process, count);
            }
            _exit(0);
        }
    }
    for (int process = 0; process < kProcesses; ++process) {
        int status = 1;
        wait(&status);
        EXPECT_EQ(status, 0);
    }
    const auto lines = linesOf(kLog);
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kProcesses * kLines));
    EXPECT_TRUE(std::all_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("process") == line.rfind("process") && endsWith(line, " end");
    }));
}

// Each file that is full is moved away once, whoever of them notices it.
TEST(LogFile, of_several_processes_keeps_the_newest_lines_when_full) {
    constexpr long kBytes = 4000;
    configure(kLog, kBytes);
    for (int process = 0; process < 4; ++process) {
        if (fork() == 0) {
            for (int count = 0; count < 300; ++count) {
                printLog(3, "process %d line %03d\n", process, count);
            }
            _exit(0);
        }
    }
    while (wait(nullptr) > 0) {
    }
    EXPECT_GT(slurp(kOlderLog).size(), static_cast<std::size_t>(kBytes) * 3 / 4);
}

TEST(LogFile, of_the_largest_limit_keeps_every_line) {
    configure(kLog, std::numeric_limits<long long>::max());
    for (int count = 0; count < 3; ++count) {
        printLog(3, "line %d\n", count);
    }
    EXPECT_EQ(linesOf(kLog).size(), 3U);
}

// A directory in the place of the older file.
TEST(LogFile, that_cannot_be_moved_away_stays_bounded) {
    configure(kLog, 1000);
    ASSERT_EQ(mkdir(kOlderLog, 0755), 0);
    for (int count = 0; count < 200; ++count) {
        printLog(3, "line %03d\n", count);
    }
    EXPECT_GT(slurp(kLog).size(), 1000U);
    EXPECT_LE(slurp(kLog).size(), 2000U);
}

// Whoever may read the log can lock it.
TEST(LogFile, does_not_wait_for_one_who_locks_it) {
    configure(kLog, 1000);
    printLog(3, "first\n");
    const int reader = open(kLog, O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(reader, LOCK_EX), 0);
    for (int count = 0; count < 30; ++count) {
        printLog(3, "line %02d\n", count);
    }
    EXPECT_EQ(linesOf(kLog).size(), 31U);
    close(reader);
}

TEST(LogFile, that_was_removed_begins_anew) {
    configure(kLog, 100000);
    printLog(3, "first\n");
    unlink(kLog);
    printLog(3, "second\n");
    ASSERT_EQ(linesOf(kLog).size(), 1U);
    EXPECT_TRUE(endsWith(linesOf(kLog)[0], "second"));
}

TEST(LogFile, begins_when_its_directory_appears) {
    configure("/tmp/logs/device.log", 100000);
    printLog(3, "lost\n");
    ASSERT_EQ(mkdir("/tmp/logs", 0755), 0);
    printLog(3, "kept\n");
    ASSERT_EQ(linesOf("/tmp/logs/device.log").size(), 1U);
}

TEST(LogFile, does_not_follow_a_link) {
    configure(kLog, 100000);
    ASSERT_EQ(symlink("/config/elsewhere", kLog), 0);
    printLog(3, "line\n");
    EXPECT_FALSE(exists("/config/elsewhere"));
}

TEST(LogFile, does_not_wait_at_a_fifo) {
    configure(kLog, 100000);
    ASSERT_EQ(mkfifo(kLog, 0600), 0);
    printLog(3, "line\n");
    struct stat status {};
    ASSERT_EQ(lstat(kLog, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
}

TEST(LogFile, is_none_unless_named) {
    spill(kConfig, R"({"log": {"syslog": false}})");
    printLog(3, "line\n");
    EXPECT_FALSE(exists(kLog));
}

}  // namespace
