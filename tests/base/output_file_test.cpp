#include "base/output_file.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/temp_dir.h"

namespace {

bool isWithoutLocks = false;

}  // namespace

// As some of the networks' file systems answer.
extern "C" int flock(int fd, int operation) noexcept {
    if (isWithoutLocks) {
        errno = ENOLCK;
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

using kavro::OutputFile;
using Names = std::vector<std::string>;

class OutputFiles : public testing::Test {
  protected:
    void expectRefused(const std::string& path, const std::string& part) {
        try {
            const OutputFile output(path);
            ADD_FAILURE() << "taken";
        } catch (const kavro::Failure& failure) {
            EXPECT_EQ(failure.error().code, kavro::ErrorCode::kOther);
            EXPECT_NE(failure.error().text.find("'" + path + "' " + part), std::string::npos)
                << failure.what();
        }
    }

    const kavro_test::TempDir directory;
    const std::string file = directory / "file";
};

TEST_F(OutputFiles, a_file_has_its_name_only_when_it_is_whole) {
    kavro_test::spill(file, "older");
    OutputFile output(file);
    output.writeAt(0, "newer");
    EXPECT_EQ(kavro_test::slurp(file), "older");
    EXPECT_EQ(kavro_test::slurp(output.path()), "newer");
    output.commit();
    EXPECT_EQ(kavro_test::slurp(file), "newer");
    EXPECT_EQ(directory.names(), Names{"file"});
}

TEST_F(OutputFiles, what_is_not_committed_leaves_nothing_behind) {
    { OutputFile(file).writeAt(0, "newer"); }
    EXPECT_EQ(directory.names(), Names{});
}

TEST_F(OutputFiles, a_new_file_has_the_mode_that_the_umask_leaves) {
    const mode_t before = umask(027);
    OutputFile(file).commit();
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(OutputFiles, bytes_that_were_never_written_are_zero) {
    OutputFile output(file);
    output.writeAt(3, "x");
    output.commit();
    EXPECT_EQ(kavro_test::slurp(file), std::string("\0\0\0x", 4));
}

TEST_F(OutputFiles, what_a_writer_that_died_has_left_is_used_again) {
    kavro_test::spill(file + ".part", "a part");
    OutputFile output(file);
    EXPECT_EQ(output.path(), file + ".part");
    output.commit();
    EXPECT_EQ(kavro_test::slurp(file), "");
}

TEST_F(OutputFiles, two_writers_of_one_file_do_not_meet_with_or_without_locks) {
    for (const bool without : {false, true}) {
        isWithoutLocks = without;
        {
            OutputFile first(file);
            OutputFile second(file);
            EXPECT_NE(first.path(), second.path());
            first.writeAt(0, "first");
            second.writeAt(0, "second");
            first.commit();
            second.commit();
        }
        isWithoutLocks = false;
        EXPECT_EQ(kavro_test::slurp(file), "second");
        EXPECT_EQ(directory.names(), Names{"file"});
    }
}

TEST_F(OutputFiles, a_directory_and_a_place_that_is_not_there_are_refused) {
    expectRefused(directory.path(), "exists and is no regular file");
    expectRefused(directory / "nowhere/file", "cannot be created (No such file or directory)");
}

}  // namespace
