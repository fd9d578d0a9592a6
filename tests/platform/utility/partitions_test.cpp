#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::checkPartitions;
using COMMON_YR::UpgradePartsLimit;

struct LogLine {
    int level;
    std::string text;
};
std::vector<LogLine> logged;

}  // namespace

// Takes the place of the library's own, for every call of the library.
void printLog(int level, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    logged.push_back({level, text});
}

namespace {

class CheckPartitions : public testing::Test {
  protected:
    CheckPartitions() {
        logged.clear();
        struct statvfs fileSystem = {};
        EXPECT_EQ(statvfs(directory.path().c_str(), &fileSystem), 0);
        capacity = static_cast<long long>(fileSystem.f_blocks) * static_cast<long long>(fileSystem.f_frsize);
    }
    static int check(const std::vector<UpgradePartsLimit>& rows) {
        return checkPartitions(rows.data(), rows.size(), true);
    }

    const kavro_test::TempDir directory;
    long long capacity = 0;
};

TEST_F(CheckPartitions, capacity_of_both_sizes_passes_silently) {
    EXPECT_EQ(check({{directory.path(), capacity, capacity}, {directory.path(), 1, 0}}), 0);
    EXPECT_TRUE(logged.empty());
}

TEST_F(CheckPartitions, capacity_below_the_nominal_is_logged_and_passes) {
    EXPECT_EQ(check({{directory.path(), capacity + 1, capacity}}), 0);
    ASSERT_EQ(logged.size(), 1U);
    EXPECT_EQ(logged[0].level, 2);
    EXPECT_NE(logged[0].text.find(directory.path()), std::string::npos);
    EXPECT_NE(logged[0].text.find(std::to_string(capacity)), std::string::npos);
    EXPECT_EQ(logged[0].text.back(), '\n');
}

TEST_F(CheckPartitions, capacity_below_the_minimum_fails) {
    EXPECT_LT(check({{directory.path(), capacity + 2, capacity + 1}}), 0);
    EXPECT_EQ(logged.size(), 1U);
}

TEST_F(CheckPartitions, minimum_alone_decides_even_above_the_nominal) {
    EXPECT_LT(check({{directory.path(), 1, capacity + 1}}), 0);
    EXPECT_TRUE(logged.empty());
}

TEST_F(CheckPartitions, missing_path_fails) {
    EXPECT_LT(check({{directory / "missing", 0, 0}}), 0);
}

TEST_F(CheckPartitions, rows_behind_a_failed_one_are_looked_at) {
    EXPECT_LT(check({{directory / "missing", 0, 0}, {directory.path(), capacity + 1, 0}}), 0);
    EXPECT_EQ(logged.size(), 1U);
}

TEST_F(CheckPartitions, one_good_row_behind_a_failed_one_does_not_mend_it) {
    EXPECT_LT(check({{directory / "missing", 0, 0}, {directory.path(), 0, 0}}), 0);
}

TEST_F(CheckPartitions, no_rows_pass) {
    EXPECT_EQ(checkPartitions(nullptr, 0, true), 0);
    EXPECT_LT(checkPartitions(nullptr, 1, true), 0);
}

}  // namespace
