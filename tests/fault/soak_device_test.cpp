// What the long series of runs look for is found when it is there.

#include "tests/fault/soak_device.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/support/device.h"

namespace {

using soak::Problems;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr unsigned long kRuns = 500;
constexpr unsigned long kWarmUp = 50;

// A series that keeps so many bytes of each run.
Problems seriesThatKeeps(std::size_t bytes) {
    std::vector<void*> kept;
    kept.reserve(kRuns);
    soak::MemoryTrend memory(kWarmUp);
    for (unsigned long i = 0; i < kRuns; ++i) {
        if (bytes != 0) {
            kept.push_back(std::calloc(1, bytes));
        }
        memory.sampleAfterRun();
    }
    Problems problems;
    memory.requireFlat(problems);
    for (void* block : kept) {
        std::free(block);
    }
    return problems;
}

class SoakDevice : public testsupport::DeviceTest {};

TEST_F(SoakDevice, finds_a_leak_of_one_kibibyte_in_each_run) {
    const Problems problems = seriesThatKeeps(1024);
    EXPECT_THAT(problems, Contains(HasSubstr("memory in use grows")));
}

TEST_F(SoakDevice, finds_no_leak_where_there_is_none) {
    EXPECT_THAT(seriesThatKeeps(0), IsEmpty());
}

TEST_F(SoakDevice, finds_a_descriptor_that_was_left_open) {
    const soak::ProcessState before;
    const int left = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Problems problems;
    before.requireUnchanged(problems, 100);
    close(left);
    EXPECT_THAT(problems, Contains(HasSubstr("/dev/null")));
}

TEST_F(SoakDevice, finds_a_thread_that_goes_on) {
    std::thread([] {}).join();
    const soak::ProcessState before;
    std::atomic<bool> over{false};
    std::thread left([&over] {
        while (!over) {
            usleep(1000);
        }
    });
    Problems problems;
    before.requireUnchanged(problems, 100);
    over = true;
    left.join();
    EXPECT_THAT(problems, Contains(HasSubstr("threads instead of")));
}

TEST_F(SoakDevice, finds_a_process_that_goes_on) {
    const soak::ProcessState before;
    ASSERT_EQ(std::system("sleep 30 & echo $! >/tmp/left"), 0);
    Problems problems;
    before.requireUnchanged(problems, 100);
    ASSERT_EQ(std::system("kill $(cat /tmp/left)"), 0);
    EXPECT_THAT(problems, Contains(HasSubstr("was left behind")));
}

TEST_F(SoakDevice, finds_what_was_flashed) {
    for (const char* path : {"/dev/disk/by-partlabel/rootfs_b", "/dev/disk/by-partlabel/env_a"}) {
        const soak::FlashState before;
        usleep(20000);  // the times of files are that coarse
        std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << "x";
        Problems problems;
        before.requireUnchanged(problems);
        EXPECT_THAT(problems, Contains(HasSubstr(path)));
    }
}

TEST_F(SoakDevice, finds_a_file_that_was_left_behind) {
    testsupport::writeFile("/config/upgraded.part", "");
    Problems problems;
    soak::requireKnownNames(problems);
    EXPECT_THAT(problems, Contains("/config/upgraded.part was left behind"));
}

TEST_F(SoakDevice, finds_a_slot_that_holds_something_else) {
    const soak::Package package = soak::makePackage("one", 105, 8, 3);
    Problems problems;
    soak::requireContent(problems, "b", package);
    EXPECT_EQ(problems.size(), 3U);
}

}  // namespace
