// writeFile.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <thread>

#include "common/utility.h"
#include "tests/platform/utility/process_view.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

using Names = std::vector<std::string>;

long write(const std::string& path, std::string content) {
    return COMMON_YR::writeFile(path.c_str(), content.data(), content.size(), false);
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

class WriteFile : public testing::Test {
  protected:
    const TempDir directory;
    const std::string file = directory / "file";
};

TEST_F(WriteFile, content_is_written_and_its_size_returned) {
    for (const std::size_t size : {0UL, 1UL, 5000000UL, 7UL}) {
        const std::string content = patterned(size);
        EXPECT_EQ(write(file, content), static_cast<long>(size));
        EXPECT_TRUE(slurp(file) == content);
    }
    EXPECT_EQ(directory.names(), Names{"file"});
}

TEST_F(WriteFile, no_data_makes_an_empty_file) {
    spill(file, "old");
    EXPECT_EQ(COMMON_YR::writeFile(file.c_str(), nullptr, 0, false), 0);
    EXPECT_EQ(slurp(file), "");
}

TEST_F(WriteFile, arguments_that_make_no_sense_leave_the_old_content) {
    spill(file, "old");
    char data[] = "x";
    EXPECT_LT(COMMON_YR::writeFile(file.c_str(), nullptr, 1, false), 0);
    EXPECT_LT(COMMON_YR::writeFile(nullptr, data, 1, false), 0);
    EXPECT_LT(COMMON_YR::writeFile("", data, 1, false), 0);
    EXPECT_LT(COMMON_YR::writeFile(file.c_str(), data, ULONG_MAX, false), 0);
    EXPECT_EQ(slurp(file), "old");
}

TEST_F(WriteFile, reader_of_the_old_file_keeps_the_old_content) {
    spill(file, "old");
    const int reader = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(write(file, "new content"), 11);
    char text[16] = {};
    EXPECT_EQ(read(reader, text, sizeof text), 3);
    EXPECT_STREQ(text, "old");
    close(reader);
}

TEST_F(WriteFile, existing_file_keeps_its_mode) {
    for (const mode_t mode : {0600U, 0640U, 0666U, 0755U}) {
        spill(file, "old");
        ASSERT_EQ(chmod(file.c_str(), mode), 0);
        EXPECT_EQ(write(file, "new"), 3);
        EXPECT_EQ(modeOf(file), mode);
    }
}

TEST_F(WriteFile, new_file_has_the_mode_that_the_umask_leaves) {
    const mode_t before = umask(027);
    EXPECT_EQ(write(file, "new"), 3);
    umask(before);
    EXPECT_EQ(modeOf(file), 0640U);
}

TEST_F(WriteFile, leftover_does_not_lend_its_mode_or_content) {
    spill(file + ".part", "left over");
    ASSERT_EQ(chmod((file + ".part").c_str(), 0400), 0);
    const mode_t before = umask(022);
    EXPECT_EQ(write(file, "new"), 3);
    umask(before);
    EXPECT_EQ(modeOf(file), 0644U);
    EXPECT_EQ(slurp(file), "new");
    EXPECT_EQ(directory.names(), Names{"file"});
}

TEST_F(WriteFile, link_stays_and_its_target_is_replaced) {
    spill(directory / "target", "old");
    ASSERT_EQ(symlink("target", file.c_str()), 0);
    EXPECT_EQ(write(file, "new"), 3);
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(slurp(directory / "target"), "new");
    EXPECT_EQ(directory.names(), (Names{"file", "target"}));
}

TEST_F(WriteFile, directory_and_missing_directory_are_failures) {
    EXPECT_LT(write(directory.path(), "x"), 0);
    EXPECT_LT(write(directory / "missing/file", "x"), 0);
    EXPECT_EQ(directory.names(), Names{});
}

TEST_F(WriteFile, device_is_written_to_as_it_stands) {
    EXPECT_EQ(write("/dev/null", "x"), 1);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_LT(write("/dev/full", "x"), 0);
}

TEST_F(WriteFile, fifo_without_reader_fails_instead_of_hanging) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_LT(write(file, "x"), 0);
}

TEST_F(WriteFile, fifo_passes_more_than_it_holds) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    const std::string content = patterned(1000000);
    const int fifo = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string received;
    std::thread reader([&] {
        char block[4096];
        while (received.size() < content.size()) {
            const ssize_t count = read(fifo, block, sizeof block);
            received.append(block, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
    });
    EXPECT_EQ(write(file, content), static_cast<long>(content.size()));
    reader.join();
    close(fifo);
    EXPECT_TRUE(received == content);
}

TEST_F(WriteFile, reader_that_goes_away_is_a_failure_and_no_signal) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    const int fifo = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::thread reader([&] {
        char block[4096];
        while (read(fifo, block, sizeof block) <= 0) {
            usleep(1000);
        }
        close(fifo);
    });
    EXPECT_LT(write(file, patterned(1000000)), 0);
    reader.join();
    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_F(WriteFile, file_in_a_directory_that_may_not_be_written_is_written_in_place) {
    for (const std::size_t oldSize : {0UL, 2UL, 5000UL}) {
        spill(file, std::string(oldSize, 'x'));
        ASSERT_EQ(chmod(file.c_str(), 0666), 0);
        ASSERT_EQ(chmod(directory.path().c_str(), 0555), 0);
        EXPECT_TRUE(kavro_test::trueForOrdinaryUser([&] { return write(file, "new") == 3; }));
        EXPECT_TRUE(kavro_test::trueForOrdinaryUser([&] { return write(directory / "other", "new") < 0; }));
        ASSERT_EQ(chmod(directory.path().c_str(), 0700), 0);
        EXPECT_EQ(slurp(file), "new");
    }
}

TEST_F(WriteFile, file_that_may_not_be_written_in_such_a_directory_is_a_failure) {
    spill(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0444), 0);
    ASSERT_EQ(chmod(directory.path().c_str(), 0555), 0);
    EXPECT_TRUE(kavro_test::trueForOrdinaryUser([&] { return write(file, "new") < 0; }));
    ASSERT_EQ(chmod(directory.path().c_str(), 0700), 0);
    EXPECT_EQ(slurp(file), "old");
}

TEST_F(WriteFile, writers_at_once_leave_one_content_whole) {
    std::atomic<bool> torn = false;
    std::atomic<bool> over = false;
    spill(file, std::string(100000, 'a'));
    std::thread reader([&] {
        while (!over) {
            const std::string content = slurp(file);
            torn = torn || content.size() != 100000 ||
                   content.find_first_not_of(content[0]) != std::string::npos;
        }
    });
    std::atomic<int> failures = 0;
    std::vector<std::thread> writers;
    for (char letter : {'a', 'b', 'c', 'd', 'e', 'f'}) {
        writers.emplace_back([&, letter] {
            for (int round = 0; round < 20; ++round) {
                failures += write(file, std::string(100000, letter)) != 100000 ? 1 : 0;
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    over = true;
    reader.join();
    EXPECT_EQ(failures, 0);
    EXPECT_FALSE(torn);
    EXPECT_EQ(directory.names(), Names{"file"});
}

TEST_F(WriteFile, descriptors_are_closed_after_success_and_failure) {
    const int before = kavro_test::openDescriptors();
    EXPECT_EQ(write(file, "x"), 1);
    EXPECT_LT(write(directory.path(), "x"), 0);
    EXPECT_LT(write("/dev/full", "x"), 0);
    EXPECT_EQ(kavro_test::openDescriptors(), before);
}

}  // namespace
