// A thread that is cancelled at every moment of a service leaves nothing behind.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "common/cancellation.h"
#include "common/utility.h"
#include "tests/platform/utility/process_view.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::chkFileMd5;
using COMMON_YR::cpFile;
using COMMON_YR::runSystem;
using kavro_test::adoptOrphans;
using kavro_test::allChildrenEnd;
using kavro_test::openDescriptors;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

using Names = std::vector<std::string>;
using Work = std::function<void()>;

constexpr std::size_t kStack = 256 << 10;

void* runWork(void* work) {
    (*static_cast<Work*>(work))();
    return nullptr;
}

// Runs work on a thread with the stack of a job and cancels it after the given time. Whether the cancel
// acted.
bool cancelledAfter(unsigned microseconds, Work work) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    pthread_t thread;
    EXPECT_EQ(pthread_create(&thread, &attributes, runWork, &work), 0);
    pthread_attr_destroy(&attributes);
    usleep(microseconds);
    pthread_cancel(thread);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    return result == PTHREAD_CANCELED;
}

// Runs work with a cancel pending from before it starts.
bool cancelledFromTheStart(Work work) {
    return cancelledAfter(0, [&work] {
        pthread_cancel(pthread_self());
        work();
    });
}

class Cancel : public testing::Test {
  protected:
    const TempDir directory;
    const std::string source = directory / "source";
    const std::string destination = directory / "destination";
};

TEST_F(Cancel, copy_ends_without_a_partial_destination_at_any_moment) {
    const std::string content = patterned(48 << 20);
    spill(source, content);
    const int descriptors = openDescriptors();
    int cancelled = 0;
    for (unsigned moment = 0; moment < 60; ++moment) {
        cancelled += cancelledAfter(moment * 1000, [&] { cpFile(source, destination); }) ? 1 : 0;
        ASSERT_EQ(openDescriptors(), descriptors);
        ASSERT_FALSE(std::filesystem::exists(destination + ".part"));
        if (std::filesystem::exists(destination)) {
            ASSERT_TRUE(slurp(destination) == content);
            std::filesystem::remove(destination);
        }
    }
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(cpFile(source, destination), 0);
    EXPECT_TRUE(slurp(destination) == content);
}

TEST_F(Cancel, copy_keeps_the_old_destination_until_it_is_whole) {
    const std::string content = patterned(32 << 20);
    spill(source, content);
    int cancelled = 0;
    for (unsigned moment = 0; moment < 20; ++moment) {
        spill(destination, "old");
        cancelled += cancelledAfter(moment * 2000, [&] { cpFile(source, destination); }) ? 1 : 0;
        const std::string now = slurp(destination);
        ASSERT_TRUE(now == "old" || now == content);
        ASSERT_EQ(directory.names(), (Names{"destination", "source"}));
    }
    EXPECT_GT(cancelled, 0);
}

TEST_F(Cancel, copy_through_a_stream_ends_too) {
    spill(source, patterned(8 << 20));
    const int descriptors = openDescriptors();
    EXPECT_TRUE(cancelledFromTheStart([&] { cpFile(source, "/dev/null"); }));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(Cancel, digest_ends_at_any_moment) {
    spill(source, std::string(48 << 20, 'a'));
    const int descriptors = openDescriptors();
    int cancelled = 0;
    for (unsigned moment = 0; moment < 60; ++moment) {
        const Work work = [&] { chkFileMd5(source, std::string(32, '0')); };
        cancelled += cancelledAfter(moment * 2000, work) ? 1 : 0;
        ASSERT_EQ(openDescriptors(), descriptors);
    }
    EXPECT_GT(cancelled, 0);
    spill(source, "hello");
    EXPECT_TRUE(chkFileMd5(source, "5d41402abc4b2a76b9719d911017c592"));
}

TEST_F(Cancel, sleeping_command_is_killed_and_reaped_at_any_moment) {
    const int descriptors = openDescriptors();
    for (unsigned moment = 0; moment < 60; ++moment) {
        ASSERT_TRUE(cancelledAfter(moment * 200, [] { runSystem("sleep 1000"); }));
        ASSERT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        ASSERT_EQ(openDescriptors(), descriptors);
    }
    EXPECT_EQ(runSystem("true"), 0);
}

TEST_F(Cancel, command_that_ends_at_the_moment_of_the_cancel_is_reaped) {
    for (unsigned moment = 0; moment < 60; ++moment) {
        cancelledAfter(moment * 100, [] { runSystem("true"); });
        ASSERT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    }
}

TEST_F(Cancel, what_the_command_started_ends_with_it) {
    adoptOrphans();
    for (unsigned moment = 0; moment < 10; ++moment) {
        ASSERT_TRUE(cancelledAfter(moment * 3000, [] {
            runSystem(
                "(sleep 1000 & sleep 1000) & trap '' TERM INT HUP; sh -c 'sleep 1000 | sleep 1000; :'; :");
        }));
        ASSERT_TRUE(allChildrenEnd());
    }
}

TEST_F(Cancel, what_the_command_started_is_reaped_where_orphans_are_adopted) {
    adoptOrphans();
    for (unsigned moment = 5; moment < 10; ++moment) {
        ASSERT_TRUE(
            cancelledAfter(moment * 10000, [] { runSystem("(sleep 1000 & sleep 1000) & sleep 1000; :"); }));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
}

TEST_F(Cancel, long_command_ends_without_a_trace) {
    const int descriptors = openDescriptors();
    const std::string word(200000, 'w');
    for (unsigned moment = 0; moment < 20; ++moment) {
        ASSERT_TRUE(cancelledAfter(moment * 1000, [&] { runSystem(": %s; sleep 1000", word.c_str()); }));
        ASSERT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        ASSERT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(Cancel, unpacking_ends_and_can_be_done_again) {
    std::filesystem::create_directory(directory / "in");
    std::filesystem::create_directory(directory / "out");
    for (int i = 0; i < 8; ++i) {
        spill(directory / "in/file" + std::to_string(i), patterned(3000000 + static_cast<std::size_t>(i)));
    }
    const std::string archive = directory / "archive";
    const std::string out = directory / "out";
    ASSERT_EQ(runSystem("tar -zcf %s -C %s .", archive.c_str(), (directory / "in").c_str()), 0);
    for (unsigned moment = 0; moment < 15; ++moment) {
        cancelledAfter(moment * 10000, [&] { runSystem("tar -zxf %s -C %s", archive.c_str(), out.c_str()); });
        ASSERT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        ASSERT_EQ(runSystem("rm %s/* -fr", out.c_str()), 0);
    }
    EXPECT_EQ(runSystem("tar -zxf %s -C %s", archive.c_str(), out.c_str()), 0);
    EXPECT_EQ(runSystem("diff -r %s %s", (directory / "in").c_str(), out.c_str()), 0);
}

TEST_F(Cancel, nothing_acts_while_the_caller_holds_it_off) {
    spill(source, patterned(8 << 20));
    int copied = -1;
    int ran = -1;
    bool matched = true;
    EXPECT_TRUE(cancelledFromTheStart([&] {
        {
            const COMMON_YR::CancelHold hold;
            copied = cpFile(source, destination);
            ran = runSystem("sleep 0.05");
            matched = chkFileMd5(source, std::string(32, '0'));
        }
        pthread_testcancel();
    }));
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(ran, 0);
    EXPECT_FALSE(matched);
    EXPECT_TRUE(slurp(destination) == slurp(source));
}

TEST_F(Cancel, other_services_complete_with_a_cancel_pending) {
    spill(source, "0123456789");
    bool over = false;
    cancelledFromTheStart([&] {
        char text[] = "text";
        char buffer[4];
        Names names;
        printLog(3, "a line with a cancel pending\n");
        EXPECT_EQ(COMMON_YR::writeFile(destination.c_str(), text, 4, false), 4);
        EXPECT_EQ(COMMON_YR::readFile2String(destination.c_str()), "text");
        EXPECT_EQ(COMMON_YR::readFileToBufferByOffset(source.c_str(), 2, 4, buffer), 4);
        EXPECT_EQ(COMMON_YR::createFile((directory / "marker").c_str(), 0), 0);
        EXPECT_EQ(COMMON_YR::mvFile(destination, directory / "moved"), 0);
        EXPECT_EQ(COMMON_YR::getFiles(directory.path().c_str(), names, false), 0);
        EXPECT_EQ(names, (Names{"marker", "moved", "source"}));
        EXPECT_EQ(COMMON_YR::rmFile(directory / "moved"), 0);
        EXPECT_EQ(COMMON_YR::getFileSize(source.c_str()), 10);
        EXPECT_TRUE(COMMON_YR::isFileExist(source.c_str()));
        over = true;
    });
    EXPECT_TRUE(over);
    EXPECT_EQ(directory.names(), (Names{"marker", "source"}));
}

}  // namespace
