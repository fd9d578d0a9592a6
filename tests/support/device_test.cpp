#include "tests/support/device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

namespace {

using testing::Contains;
using testing::Not;

TEST(DeviceView, counts_what_a_process_has_open) {
    const unsigned long before = testsupport::descriptorCount();
    {
        const std::ifstream file("/dev/null");
        EXPECT_EQ(testsupport::descriptorCount(), before + 1);
    }
    EXPECT_EQ(testsupport::descriptorCount(), before);
}

TEST(DeviceView, sees_the_processes_that_were_started_meanwhile) {
    const std::vector<int> before = testsupport::processPids();
    EXPECT_THAT(before, Contains(getpid()));
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    ASSERT_EQ(testsupport::children().size(), 1U);
    EXPECT_EQ(testsupport::children().front().pid, child);
    EXPECT_EQ(testsupport::children().front().parent, getpid());
    EXPECT_FALSE(testsupport::newProcesses(before).empty());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(testsupport::children().empty());
}

TEST(DeviceView, sees_threads_by_name) {
    std::thread([] {}).join();
    const unsigned long before = testsupport::threadCount();
    std::atomic<bool> done{false};
    std::thread thread([&done] {
        while (!done) {
            usleep(1000);
        }
    });
    pthread_setname_np(thread.native_handle(), "seen_thread");
    EXPECT_TRUE(testsupport::waitForThreadCount(before + 1));
    EXPECT_THAT(testsupport::threadNames(), Contains("seen_thread"));
    done = true;
    thread.join();
    EXPECT_TRUE(testsupport::waitForThreadCount(before));
    EXPECT_THAT(testsupport::threadNames(), Not(Contains("seen_thread")));
}

class Device : public testsupport::DeviceTest {};

// The source and build trees appear at their own paths, which may be below the host's /tmp.
bool leadsToTheProject(const std::string& path) {
    return std::string(KAVRO_SOURCE_DIR "/").rfind(path, 0) == 0 ||
           std::string(KAVRO_BINARY_DIR "/").rfind(path, 0) == 0;
}

TEST_F(Device, is_emptied_but_for_its_factory_settings) {
    testsupport::writeFile("/firmware/deep/file", "x");
    testsupport::writeFile("/config/upgraded", "");
    testsupport::writeFile("/etc/kavro/origin.pkg.tar.gz", "x");
    testsupport::emptyDevice();
    for (const char* directory : {"/config", "/firmware", "/raw", "/tmp"}) {
        for (const std::string& name : testsupport::namesIn(directory)) {
            EXPECT_TRUE(leadsToTheProject(directory + ("/" + name + "/"))) << directory << "/" << name;
        }
    }
    EXPECT_FALSE(testsupport::exists("/etc/kavro/origin.pkg.tar.gz"));
    EXPECT_EQ(testsupport::readVersions("/etc/kavro/version.json").mpu, 104);
}

TEST(DeviceView, a_version_file_holds_the_four_members) {
    EXPECT_EQ(testsupport::versionJson(testsupport::versionOf(1, 104, -1, 2)),
              "{\n   \"bld_version\" : 2,\n   \"hw_version\" : 1,\n   \"mcu_version\" : -1,\n   "
              "\"mpu_version\" : 104\n}\n");
}

}  // namespace
