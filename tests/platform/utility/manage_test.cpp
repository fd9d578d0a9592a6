// rmFile, mvFile, createFile, getFiles.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::createFile;
using COMMON_YR::getFiles;
using COMMON_YR::kErrNoFile;
using COMMON_YR::mvFile;
using COMMON_YR::rmFile;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

using Names = std::vector<std::string>;

class Manage : public testing::Test {
  protected:
    const TempDir directory;
};

using RmFile = Manage;

TEST_F(RmFile, file_is_removed) {
    spill(directory / "file", "x");
    EXPECT_EQ(rmFile(directory / "file"), 0);
    EXPECT_EQ(directory.names(), Names{});
}

TEST_F(RmFile, missing_file_has_a_code_of_its_own) {
    EXPECT_EQ(rmFile(directory / "missing"), kErrNoFile);
    spill(directory / "file", "x");
    EXPECT_EQ(rmFile(directory / "file/below"), kErrNoFile);
    EXPECT_EQ(rmFile(""), kErrNoFile);
}

TEST_F(RmFile, directory_is_refused) {
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    const int result = rmFile(directory / "sub");
    EXPECT_LT(result, 0);
    EXPECT_NE(result, kErrNoFile);
    EXPECT_EQ(directory.names(), Names{"sub"});
}

TEST_F(RmFile, link_is_removed_and_its_target_stays) {
    spill(directory / "file", "x");
    ASSERT_EQ(symlink("file", (directory / "link").c_str()), 0);
    EXPECT_EQ(rmFile(directory / "link"), 0);
    EXPECT_EQ(directory.names(), Names{"file"});
}

using MvFile = Manage;

TEST_F(MvFile, file_gets_its_new_name) {
    spill(directory / "a", "content");
    EXPECT_EQ(mvFile(directory / "a", directory / "b"), 0);
    EXPECT_EQ(directory.names(), Names{"b"});
    EXPECT_EQ(slurp(directory / "b"), "content");
}

TEST_F(MvFile, old_destination_is_replaced) {
    spill(directory / "a", "new");
    spill(directory / "b", "old");
    EXPECT_EQ(mvFile(directory / "a", directory / "b"), 0);
    EXPECT_EQ(directory.names(), Names{"b"});
    EXPECT_EQ(slurp(directory / "b"), "new");
}

TEST_F(MvFile, other_file_system_gets_a_copy_and_loses_the_source) {
    const TempDir elsewhere("/dev/shm");
    struct stat here = {};
    struct stat there = {};
    ASSERT_EQ(stat(directory.path().c_str(), &here), 0);
    ASSERT_EQ(stat(elsewhere.path().c_str(), &there), 0);
    if (here.st_dev == there.st_dev) {
        GTEST_SKIP() << "the temporary directory lies on the same file system as /dev/shm";
    }
    const std::string content = patterned(100000);
    spill(directory / "a", content);
    EXPECT_EQ(mvFile(directory / "a", elsewhere / "b"), 0);
    EXPECT_EQ(directory.names(), Names{});
    EXPECT_EQ(elsewhere.names(), Names{"b"});
    EXPECT_EQ(slurp(elsewhere / "b"), content);
}

TEST_F(MvFile, failures_leave_the_source) {
    spill(directory / "a", "content");
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    EXPECT_LT(mvFile(directory / "a", directory / "sub"), 0);
    EXPECT_LT(mvFile(directory / "a", directory / "missing/b"), 0);
    EXPECT_LT(mvFile(directory / "missing", directory / "b"), 0);
    EXPECT_EQ(directory.names(), (Names{"a", "sub"}));
    EXPECT_EQ(slurp(directory / "a"), "content");
}

TEST_F(MvFile, directory_is_no_file_to_move) {
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    EXPECT_LT(mvFile(directory / "sub", directory / "other"), 0);
    EXPECT_EQ(directory.names(), Names{"sub"});
}

using CreateFile = Manage;

TEST_F(CreateFile, empty_marker) {
    EXPECT_EQ(createFile((directory / "marker").c_str(), 0), 0);
    EXPECT_EQ(slurp(directory / "marker"), "");
    EXPECT_EQ(directory.names(), Names{"marker"});
}

TEST_F(CreateFile, size_is_zeros_that_occupy_no_storage) {
    EXPECT_EQ(createFile((directory / "file").c_str(), 64 << 20), 0);
    struct stat status = {};
    ASSERT_EQ(stat((directory / "file").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 64 << 20);
    EXPECT_LT(status.st_blocks, 2048);
    EXPECT_EQ(createFile((directory / "small").c_str(), 3), 0);
    EXPECT_EQ(slurp(directory / "small"), std::string(3, '\0'));
}

TEST_F(CreateFile, existing_file_gets_the_size_and_keeps_its_start) {
    spill(directory / "file", "0123456789");
    EXPECT_EQ(createFile((directory / "file").c_str(), 4), 0);
    EXPECT_EQ(slurp(directory / "file"), "0123");
}

TEST_F(CreateFile, failure_leaves_nothing) {
    EXPECT_LT(createFile((directory / "missing/file").c_str(), 0), 0);
    EXPECT_LT(createFile(directory.path().c_str(), 0), 0);
    EXPECT_LT(createFile((directory / "file").c_str(), ULONG_MAX), 0);
    EXPECT_LT(createFile((directory / "file").c_str(), LONG_MAX), 0);
    EXPECT_LT(createFile(nullptr, 0), 0);
    EXPECT_LT(createFile("", 0), 0);
    EXPECT_EQ(directory.names(), Names{});
}

TEST_F(CreateFile, device_is_refused) {
    EXPECT_LT(createFile("/dev/null", 0), 0);
}

using GetFiles = Manage;

TEST_F(GetFiles, names_are_bare_sorted_and_without_subdirectories) {
    for (const char* name : {"b", "a", "Z", ".hidden", "10", "9"}) {
        spill(directory / name, "");
    }
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    ASSERT_EQ(symlink("sub", (directory / "sub_link").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (directory / "dangling").c_str()), 0);
    Names names;
    EXPECT_EQ(getFiles(directory.path().c_str(), names, false), 0);
    EXPECT_EQ(names, (Names{".hidden", "10", "9", "Z", "a", "b", "dangling"}));
}

// Whoever opens a pipe waits for its other end, and some devices never end.
TEST_F(GetFiles, names_are_without_what_is_no_file) {
    spill(directory / "file", "");
    ASSERT_EQ(symlink("file", (directory / "file_link").c_str()), 0);
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink("pipe", (directory / "pipe_link").c_str()), 0);
    ASSERT_EQ(symlink("/dev/zero", (directory / "device_link").c_str()), 0);
    Names names;
    EXPECT_EQ(getFiles(directory.path().c_str(), names, false), 0);
    EXPECT_EQ(names, (Names{"file", "file_link"}));
}

TEST_F(GetFiles, names_are_appended) {
    spill(directory / "b", "");
    Names names = {"z"};
    EXPECT_EQ(getFiles(directory.path().c_str(), names, false), 0);
    EXPECT_EQ(names, (Names{"z", "b"}));
}

TEST_F(GetFiles, what_is_no_directory_is_negative_and_names_stay) {
    spill(directory / "file", "");
    Names names = {"z"};
    EXPECT_LT(getFiles((directory / "file").c_str(), names, false), 0);
    EXPECT_LT(getFiles((directory / "missing").c_str(), names, false), 0);
    EXPECT_LT(getFiles(nullptr, names, false), 0);
    EXPECT_EQ(names, Names{"z"});
}

}  // namespace
