// readFile2String, readFileToBufferByOffset, getFileSize, isFileExist.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::getFileSize;
using COMMON_YR::isFileExist;
using COMMON_YR::readFile2String;
using COMMON_YR::readFileToBufferByOffset;
using kavro_test::patterned;
using kavro_test::spill;
using kavro_test::TempDir;

class ReadFile : public testing::Test {
  protected:
    std::string holding(const std::string& content) const {
        spill(directory / "file", content);
        return directory / "file";
    }
    const TempDir directory;
};

using ReadFile2String = ReadFile;

TEST_F(ReadFile2String, whole_content_is_returned) {
    for (const std::size_t size : {0UL, 1UL, 4095UL, 4096UL, 4097UL, 1000003UL}) {
        const std::string content = patterned(size);
        EXPECT_EQ(readFile2String(holding(content).c_str()), content) << size;
    }
}

TEST_F(ReadFile2String, file_that_tells_no_size_is_read) {
    EXPECT_EQ(readFile2String("/proc/version"), kavro_test::slurp("/proc/version"));
    EXPECT_FALSE(readFile2String("/proc/version").empty());
}

TEST_F(ReadFile2String, missing_file_directory_and_null_are_empty) {
    EXPECT_EQ(readFile2String((directory / "missing").c_str()), "");
    EXPECT_EQ(readFile2String(directory.path().c_str()), "");
    EXPECT_EQ(readFile2String(nullptr), "");
}

TEST_F(ReadFile2String, fifo_without_writer_does_not_hang) {
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(readFile2String((directory / "fifo").c_str()), "");
}

using ReadFileToBuffer = ReadFile;

TEST_F(ReadFileToBuffer, part_from_the_offset_is_read) {
    const std::string path = holding("0123456789");
    char buffer[5] = "----";
    EXPECT_EQ(readFileToBufferByOffset(path.c_str(), 3, 4, buffer), 4);
    EXPECT_STREQ(buffer, "3456");
}

TEST_F(ReadFileToBuffer, end_of_the_file_shortens_the_result_and_spares_the_rest) {
    const std::string path = holding("0123456789");
    char buffer[5] = "----";
    EXPECT_EQ(readFileToBufferByOffset(path.c_str(), 8, 4, buffer), 2);
    EXPECT_STREQ(buffer, "89--");
    EXPECT_EQ(readFileToBufferByOffset(path.c_str(), 10, 4, buffer), 0);
    EXPECT_EQ(readFileToBufferByOffset(path.c_str(), 11, 4, buffer), 0);
    EXPECT_EQ(readFileToBufferByOffset(path.c_str(), 0, 0, nullptr), 0);
}

TEST_F(ReadFileToBuffer, what_cannot_be_read_is_negative) {
    char buffer[4];
    EXPECT_LT(readFileToBufferByOffset((directory / "missing").c_str(), 0, 4, buffer), 0);
    EXPECT_LT(readFileToBufferByOffset(directory.path().c_str(), 0, 4, buffer), 0);
    EXPECT_LT(readFileToBufferByOffset(nullptr, 0, 4, buffer), 0);
    EXPECT_LT(readFileToBufferByOffset(holding("x").c_str(), 0, 4, nullptr), 0);
    EXPECT_LT(readFileToBufferByOffset(holding("x").c_str(), ULONG_MAX, 4, buffer), 0);
}

using FileSize = ReadFile;

TEST_F(FileSize, size_of_a_regular_file_and_through_a_link) {
    const std::string path = holding("12345");
    EXPECT_EQ(getFileSize(path.c_str()), 5);
    ASSERT_EQ(symlink(path.c_str(), (directory / "link").c_str()), 0);
    EXPECT_EQ(getFileSize((directory / "link").c_str()), 5);
}

TEST_F(FileSize, size_beyond_4_gib) {
    const std::string path = holding("");
    ASSERT_EQ(truncate(path.c_str(), 5L << 30), 0);
    EXPECT_EQ(getFileSize(path.c_str()), 5L << 30);
}

TEST_F(FileSize, anything_else_is_negative) {
    EXPECT_LT(getFileSize((directory / "missing").c_str()), 0);
    EXPECT_LT(getFileSize(directory.path().c_str()), 0);
    EXPECT_LT(getFileSize("/dev/null"), 0);
    EXPECT_LT(getFileSize(nullptr), 0);
}

using FileExists = ReadFile;

TEST_F(FileExists, files_and_directories_exist) {
    EXPECT_TRUE(isFileExist(holding("").c_str()));
    EXPECT_TRUE(isFileExist(directory.path().c_str()));
}

TEST_F(FileExists, missing_file_dangling_link_and_null_do_not) {
    EXPECT_FALSE(isFileExist((directory / "missing").c_str()));
    ASSERT_EQ(symlink("nowhere", (directory / "link").c_str()), 0);
    EXPECT_FALSE(isFileExist((directory / "link").c_str()));
    EXPECT_FALSE(isFileExist(nullptr));
    EXPECT_FALSE(isFileExist(""));
}

}  // namespace
