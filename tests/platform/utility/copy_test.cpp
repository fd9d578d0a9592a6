// cpFile on a file system with room.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "common/utility.h"
#include "tests/platform/utility/process_view.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::cpFile;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

using Names = std::vector<std::string>;

class CpFile : public testing::Test {
  protected:
    CpFile() { spill(source, content); }

    struct stat statusOf(const std::string& name) const {
        struct stat status = {};
        EXPECT_EQ(stat((directory / name).c_str(), &status), 0);
        return status;
    }

    const TempDir directory;
    const std::string source = directory / "source";
    const std::string destination = directory / "destination";
    const std::string content = patterned(9000001);
};

TEST_F(CpFile, content_is_copied_and_nothing_else_is_left) {
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(slurp(destination), content);
    EXPECT_EQ(slurp(source), content);
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

TEST_F(CpFile, every_size_around_blocks_of_memory_and_storage_is_copied) {
    constexpr std::size_t kMiB = 1 << 20;
    for (const std::size_t size : {kMiB - 1, kMiB, kMiB + 1, kMiB + 511, kMiB + 512, kMiB + 4096,
                                   2 * kMiB - 1, 2 * kMiB, 5 * kMiB + 12345}) {
        SCOPED_TRACE(size);
        spill(source, content.substr(0, size));
        EXPECT_EQ(cpFile(source, destination), 0);
        EXPECT_TRUE(slurp(destination) == content.substr(0, size));
    }
}

TEST_F(CpFile, empty_file_is_copied) {
    spill(source, "");
    spill(destination, "old");
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(slurp(destination), "");
}

TEST_F(CpFile, file_that_tells_no_size_is_copied) {
    EXPECT_EQ(cpFile("/proc/version", destination), 0);
    EXPECT_EQ(slurp(destination), slurp("/proc/version"));
    EXPECT_FALSE(slurp(destination).empty());
}

TEST_F(CpFile, old_content_is_replaced_whether_longer_or_shorter) {
    for (const std::size_t size : {1UL, 20000000UL}) {
        spill(destination, std::string(size, 'x'));
        EXPECT_EQ(cpFile(source, destination), 0);
        EXPECT_EQ(slurp(destination), content);
    }
}

TEST_F(CpFile, permission_bits_are_the_source_s_whatever_the_umask) {
    spill(destination, "old");
    for (const mode_t mode : {0777U, 0640U, 0444U, 0600U}) {
        ASSERT_EQ(chmod(source.c_str(), mode), 0);
        EXPECT_EQ(cpFile(source, destination), 0);
        EXPECT_EQ(statusOf("destination").st_mode & 07777, mode);
    }
}

TEST_F(CpFile, holes_stay_holes) {
    ASSERT_EQ(truncate(source.c_str(), 0), 0);
    const int file = open(source.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(pwrite(file, "first", 5, 8 << 20), 5);
    ASSERT_EQ(pwrite(file, "second", 6, 40 << 20), 6);
    ASSERT_EQ(ftruncate(file, 64 << 20), 0);
    ASSERT_EQ(close(file), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(statusOf("destination").st_size, 64 << 20);
    EXPECT_LT(statusOf("destination").st_blocks, 8192);
    EXPECT_TRUE(slurp(destination) == slurp(source));
}

TEST_F(CpFile, blocks_of_zeros_become_holes) {
    const std::string sparse = std::string(3000000, '\0') + "first" + std::string(20000000, '\0') + "last" +
                               std::string(9000000, '\0');
    spill(source, sparse);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(statusOf("destination").st_size, static_cast<off_t>(sparse.size()));
    EXPECT_LT(statusOf("destination").st_blocks * 512, 1000000);
    EXPECT_TRUE(slurp(destination) == sparse);
}

TEST_F(CpFile, file_that_is_one_hole_is_copied) {
    ASSERT_EQ(truncate(source.c_str(), 0), 0);
    ASSERT_EQ(truncate(source.c_str(), 10000000), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    const std::string result = slurp(destination);
    EXPECT_EQ(result.size(), 10000000U);
    EXPECT_EQ(result.find_first_not_of('\0'), std::string::npos);
}

TEST_F(CpFile, other_file_system_gets_a_copy) {
    const TempDir elsewhere("/dev/shm");
    EXPECT_EQ(cpFile(source, elsewhere / "copy"), 0);
    EXPECT_EQ(slurp(elsewhere / "copy"), content);
    EXPECT_EQ(elsewhere.names(), Names{"copy"});
}

TEST_F(CpFile, directory_as_source_is_refused) {
    spill(destination, "old");
    EXPECT_LT(cpFile(directory.path(), destination), 0);
    EXPECT_EQ(slurp(destination), "old");
}

TEST_F(CpFile, directory_as_destination_is_refused) {
    ASSERT_EQ(mkdir(destination.c_str(), 0700), 0);
    EXPECT_LT(cpFile(source, destination), 0);
    EXPECT_LT(cpFile(source, destination + "/"), 0);
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    EXPECT_TRUE(std::filesystem::is_empty(destination));
}

TEST_F(CpFile, missing_source_leaves_the_destination) {
    spill(destination, "old");
    EXPECT_LT(cpFile(directory / "missing", destination), 0);
    EXPECT_LT(cpFile("", destination), 0);
    EXPECT_EQ(slurp(destination), "old");
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

TEST_F(CpFile, missing_directory_of_the_destination_is_a_failure) {
    EXPECT_LT(cpFile(source, directory / "missing/copy"), 0);
    EXPECT_LT(cpFile(source, directory / "copy/"), 0);
    EXPECT_LT(cpFile(source, ""), 0);
    EXPECT_EQ(directory.names(), Names{"source"});
}

TEST_F(CpFile, fifo_and_device_as_source_are_refused) {
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    EXPECT_LT(cpFile(directory / "fifo", destination), 0);
    EXPECT_LT(cpFile("/dev/zero", destination), 0);
    EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(CpFile, file_onto_itself_is_refused_without_loss) {
    ASSERT_EQ(link(source.c_str(), (directory / "hard").c_str()), 0);
    ASSERT_EQ(symlink("source", (directory / "soft").c_str()), 0);
    EXPECT_LT(cpFile(source, source), 0);
    EXPECT_LT(cpFile(source, directory / "./source"), 0);
    EXPECT_LT(cpFile(source, directory / "hard"), 0);
    EXPECT_LT(cpFile(source, directory / "soft"), 0);
    EXPECT_EQ(slurp(source), content);
    EXPECT_EQ(directory.names(), (Names{"hard", "soft", "source"}));
}

TEST_F(CpFile, link_as_destination_stays_and_its_target_is_replaced) {
    ASSERT_EQ(mkdir((directory / "sub").c_str(), 0700), 0);
    spill(directory / "sub/target", "old");
    ASSERT_EQ(symlink("sub/target", (directory / "second").c_str()), 0);
    ASSERT_EQ(symlink((directory / "second").c_str(), destination.c_str()), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(destination));
    EXPECT_TRUE(std::filesystem::is_symlink(directory / "second"));
    EXPECT_EQ(slurp(directory / "sub/target"), content);
}

TEST_F(CpFile, dangling_link_as_destination_gets_its_target) {
    ASSERT_EQ(symlink("target", destination.c_str()), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(destination));
    EXPECT_EQ(slurp(directory / "target"), content);
}

TEST_F(CpFile, circle_of_links_is_a_failure) {
    ASSERT_EQ(symlink("other", destination.c_str()), 0);
    ASSERT_EQ(symlink("destination", (directory / "other").c_str()), 0);
    EXPECT_LT(cpFile(source, destination), 0);
}

TEST_F(CpFile, device_as_destination_takes_the_content_and_stays) {
    EXPECT_EQ(cpFile(source, "/dev/null"), 0);
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_LT(cpFile(source, "/dev/full"), 0);
}

TEST_F(CpFile, fifo_as_destination_passes_the_content_on) {
    ASSERT_EQ(mkfifo(destination.c_str(), 0600), 0);
    EXPECT_LT(cpFile(source, destination), 0) << "nobody reads";
    std::string received;
    std::atomic<bool> opened = false;
    std::thread reader([&] {
        const int fifo = open(destination.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        opened = true;
        char block[65536];
        for (ssize_t count = -1; received.size() < content.size() || count != 0;) {
            count = read(fifo, block, sizeof block);
            if (count > 0) {
                received.append(block, static_cast<std::size_t>(count));
            }
        }
        close(fifo);
    });
    while (!opened) {
        usleep(1000);
    }
    EXPECT_EQ(cpFile(source, destination), 0);
    reader.join();
    EXPECT_TRUE(received == content);
}

TEST_F(CpFile, leftover_of_an_interrupted_copy_is_reused) {
    spill(destination + ".part", "half a file");
    ASSERT_EQ(chmod((destination + ".part").c_str(), 0444), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(slurp(destination), content);
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

TEST_F(CpFile, source_that_is_named_as_a_leftover_is_spared) {
    ASSERT_EQ(rename(source.c_str(), (destination + ".part").c_str()), 0);
    EXPECT_EQ(cpFile(destination + ".part", destination), 0);
    EXPECT_EQ(slurp(destination), content);
    EXPECT_EQ(slurp(destination + ".part"), content);
    EXPECT_EQ(directory.names(), (Names{"destination", "destination.part"}));
}

TEST_F(CpFile, directory_or_link_that_is_named_as_a_leftover_is_spared) {
    ASSERT_EQ(mkdir((destination + ".part").c_str(), 0700), 0);
    ASSERT_EQ(symlink("source", (destination + ".part1").c_str()), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(slurp(destination), content);
    EXPECT_EQ(slurp(source), content);
    EXPECT_EQ(directory.names(), (Names{"destination", "destination.part", "destination.part1", "source"}));
}

TEST_F(CpFile, part_file_of_another_writer_is_spared) {
    spill(destination + ".part", "in work");
    const int other = open((destination + ".part").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_EQ(slurp(destination + ".part"), "in work");
    EXPECT_EQ(directory.names(), (Names{"destination", "destination.part", "source"}));
    close(other);
}

TEST_F(CpFile, longest_file_name_is_possible) {
    for (const std::string& name : {std::string(255, 'n'), std::string(250, 'n') + ".part"}) {
        spill(directory / name, "old");
        EXPECT_EQ(cpFile(source, directory / name), 0);
        EXPECT_EQ(slurp(directory / name), content);
    }
    EXPECT_LT(cpFile(source, directory / std::string(256, 'n')), 0);
    EXPECT_EQ(directory.names().size(), 3U);
}

TEST_F(CpFile, names_with_every_odd_character_are_plain_names) {
    const std::string odd = directory / "a b'\"$(x)`;\n\\*";
    EXPECT_EQ(cpFile(source, odd), 0);
    EXPECT_EQ(slurp(odd), content);
}

TEST_F(CpFile, file_in_a_directory_that_may_not_be_written_is_written_in_place) {
    spill(source, std::string(3000, 's') + std::string(500000, '\0'));
    ASSERT_EQ(chmod(source.c_str(), 0644), 0);
    ASSERT_EQ(truncate(source.c_str(), 900000), 0);  // ends in a hole
    for (const std::size_t oldSize : {0UL, 10UL, 1000000UL}) {
        spill(destination, std::string(oldSize, 'x'));
        ASSERT_EQ(chmod(destination.c_str(), 0666), 0);
        ASSERT_EQ(chmod(directory.path().c_str(), 0555), 0);
        EXPECT_TRUE(kavro_test::trueForOrdinaryUser([&] { return cpFile(source, destination) == 0; }));
        EXPECT_TRUE(kavro_test::trueForOrdinaryUser([&] { return cpFile(source, directory / "new") < 0; }));
        ASSERT_EQ(chmod(directory.path().c_str(), 0700), 0);
        EXPECT_EQ(slurp(destination), slurp(source));
        EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    }
}

TEST_F(CpFile, copies_to_one_destination_at_once_leave_one_of_them_whole) {
    const std::string other = directory / "other";
    const std::string otherContent = patterned(8000000);
    spill(other, otherContent);
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 5; ++round) {
                failures += cpFile(i % 2 == 0 ? source : other, destination) != 0 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    const std::string result = slurp(destination);
    EXPECT_TRUE(result == content || result == otherContent);
    EXPECT_EQ(directory.names(), (Names{"destination", "other", "source"}));
}

TEST_F(CpFile, descriptors_are_closed_after_success_and_failure) {
    const int before = kavro_test::openDescriptors();
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_LT(cpFile(source, directory.path()), 0);
    EXPECT_LT(cpFile(source, "/dev/full"), 0);
    EXPECT_LT(cpFile(source, source), 0);
    EXPECT_EQ(kavro_test::openDescriptors(), before);
}

}  // namespace
