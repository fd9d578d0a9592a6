// Copies and writes onto a file that is a mount point: nothing can take its place, so it is written as it stands.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::cpFile;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;

using Names = std::vector<std::string>;

constexpr std::size_t kMib = 1 << 20;

// A disk of 4 MiB holds the file that is seen at the destination, too.
class MountPoint : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(disk);
        std::filesystem::create_directory(place / "directory");
        ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=4194304"), 0);
        spill(mounted, "old");
        ASSERT_EQ(chmod(mounted.c_str(), 0640), 0);
        spill(destination, "under the mount");
        ASSERT_EQ(mount(mounted.c_str(), destination.c_str(), nullptr, MS_BIND, nullptr), 0);
        spill(source, "new");
        ASSERT_EQ(chmod(source.c_str(), 0755), 0);
    }
    void TearDown() override {
        EXPECT_EQ(umount(destination.c_str()), 0);
        EXPECT_EQ(slurp(destination), "under the mount");
        EXPECT_EQ(umount(disk.c_str()), 0);
    }

    long write(const std::string& text) const {
        std::string data = text;
        return COMMON_YR::writeFile(destination.c_str(), data.data(), data.size(), false);
    }
    void expectContent(const std::string& content) const {
        EXPECT_TRUE(slurp(destination) == content);
        EXPECT_TRUE(slurp(mounted) == content);
        EXPECT_EQ(namesBeside(), Names{"destination"});
        struct stat status = {};
        ASSERT_EQ(stat(destination.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0640U);
    }
    Names namesBeside() const {
        Names names;
        for (const auto& entry : std::filesystem::directory_iterator(place / "directory")) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const kavro_test::TempDir place;
    const std::string disk = place / "disk";
    const std::string mounted = disk + "/mounted";
    const std::string destination = place / "directory/destination";
    const std::string source = place / "source";
};

TEST_F(MountPoint, gets_the_content_that_is_written) {
    for (const std::string& text : {std::string("new"), std::string("longer than before"), std::string("x"),
                                    std::string(), patterned(3 * kMib)}) {
        EXPECT_EQ(write(text), static_cast<long>(text.size()));
        expectContent(text);
    }
}

TEST_F(MountPoint, gets_the_content_that_is_copied_and_keeps_its_mode) {
    for (const std::string& text : {std::string("new"), patterned(3 * kMib + 1), std::string(3 * kMib, '\0'),
                                    std::string("short"), std::string()}) {
        spill(source, text);
        EXPECT_EQ(cpFile(source, destination), 0);
        expectContent(text);
    }
}

TEST_F(MountPoint, behind_a_link_gets_the_content) {
    const std::string link = place / "link";
    std::filesystem::create_symlink("directory/destination", link);
    EXPECT_EQ(cpFile(source, link), 0);
    expectContent("new");
    EXPECT_TRUE(std::filesystem::is_symlink(link));
}

TEST_F(MountPoint, keeps_its_content_when_there_is_no_room_for_the_new) {
    EXPECT_LT(write(patterned(5 * kMib)), 0);
    expectContent("old");
    spill(source, patterned(5 * kMib));
    EXPECT_LT(cpFile(source, destination), 0);
    expectContent("old");
}

TEST_F(MountPoint, is_no_copy_of_itself) {
    EXPECT_LT(cpFile(mounted, destination), 0);
    expectContent("old");
}

TEST_F(MountPoint, that_is_read_only_keeps_its_content) {
    ASSERT_EQ(mount(nullptr, destination.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    EXPECT_LT(write("new"), 0);
    EXPECT_LT(cpFile(source, destination), 0);
    expectContent("old");
}

TEST_F(MountPoint, that_is_a_running_program_keeps_its_content) {
    std::filesystem::copy_file("/bin/sleep", mounted, std::filesystem::copy_options::overwrite_existing);
    ASSERT_EQ(chmod(mounted.c_str(), 0750), 0);
    const std::string program = slurp(mounted);
    int started[2];
    ASSERT_EQ(pipe2(started, O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        execl(destination.c_str(), "sleep", "1000", nullptr);
        _exit(127);
    }
    close(started[1]);
    char byte = 0;
    EXPECT_EQ(read(started[0], &byte, 1), 0);  // closed by the exec
    close(started[0]);
    EXPECT_LT(write("new"), 0);
    EXPECT_LT(cpFile(source, destination), 0);
    EXPECT_TRUE(slurp(destination) == program);
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(chmod(mounted.c_str(), 0640), 0);
    EXPECT_EQ(namesBeside(), Names{"destination"});
}

TEST_F(MountPoint, is_written_to_the_end_with_a_cancel_pending) {
    long result = 0;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        result = write("new");
    });
    thread.join();
    EXPECT_EQ(result, 3);
    expectContent("new");
}

// There is no old content to go back to.
TEST_F(MountPoint, is_empty_after_a_copy_that_was_cancelled) {
    spill(source, patterned(3 * kMib));
    int result = 1;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        result = cpFile(source, destination);
    });
    thread.join();
    EXPECT_EQ(result, 1);
    expectContent("");
}

}  // namespace
