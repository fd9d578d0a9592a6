#include "common/user_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/cancellation.h"
#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::UserThreadBase;

void pause() {
    usleep(1000);
}

// Counts what runs on it; its rounds last as long as `held` is set.
class Worker : public UserThreadBase {
  public:
    ~Worker() {
        held = false;
        stop(-1);
    }
    int initFunc() override {
        ++inits;
        return initResult;
    }
    int deinitFunc() override {
        ++deinits;
        return 0;
    }
    int threadFunc() override {
        tid = static_cast<int>(syscall(SYS_gettid));
        ++rounds;
        while (held) {
            pause();
        }
        pause();
        return roundResult;
    }
    void awaitRound() const {
        while (rounds == 0) {
            pause();
        }
    }
    void awaitEnd() const {
        while (isRunning()) {
            pause();
        }
    }
    void setStackSize(unsigned long bytes) { stackSize = bytes; }
    void setPriority(int value) { priority = value; }

    std::atomic<int> inits{0};
    std::atomic<int> deinits{0};
    std::atomic<int> rounds{0};
    std::atomic<int> tid{0};
    std::atomic<bool> held{false};
    int initResult = 0;
    int roundResult = 0;
};

int threadsOfProcess() {
    const std::filesystem::directory_iterator all("/proc/self/task");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

// The number of threads to compare with later. A sanitizer adds a thread of its own at the process's first.
int threadsAtFirst() {
    std::thread([] {}).join();
    usleep(100000);  // the kernel's entry outlives the join by a moment
    return threadsOfProcess();
}

bool comesDownTo(int threads) {
    for (int tries = 0; tries < 5000 && threadsOfProcess() > threads; ++tries) {
        pause();
    }
    return threadsOfProcess() <= threads;
}

TEST(UserThread, base_functions_do_nothing_and_succeed) {
    UserThreadBase thread;
    EXPECT_EQ(thread.initFunc(), 0);
    EXPECT_EQ(thread.deinitFunc(), 0);
    EXPECT_EQ(thread.threadFunc(), 0);
    EXPECT_EQ(thread.getName(), "baseThread");
    EXPECT_FALSE(thread.isRunning());
    thread.stop(-1);
}

TEST(UserThread, positive_repeat_runs_that_many_rounds) {
    for (const int repeat : {1, 2, 7}) {
        Worker worker;
        ASSERT_TRUE(worker.start(repeat));
        worker.awaitEnd();
        EXPECT_EQ(worker.rounds, repeat);
        EXPECT_EQ(worker.inits, 1);
        EXPECT_EQ(worker.deinits, 1);
    }
}

TEST(UserThread, invalid_repeat_is_refused) {
    Worker worker;
    for (const int repeat : {0, -2, INT_MIN}) {
        EXPECT_FALSE(worker.start(repeat));
        EXPECT_FALSE(worker.isRunning());
    }
}

TEST(UserThread, repeat_without_end_runs_until_stopped) {
    Worker worker;
    ASSERT_TRUE(worker.start(-1));
    while (worker.rounds < 5) {
        pause();
    }
    EXPECT_TRUE(worker.isRunning());
    worker.stop(UserThreadBase::kStopWaitMs);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(worker.deinits, 1);
    const int rounds = worker.rounds;
    usleep(20000);
    EXPECT_EQ(worker.rounds, rounds);
}

TEST(UserThread, negative_result_ends_the_repetition) {
    Worker worker;
    worker.roundResult = -1;
    ASSERT_TRUE(worker.start(-1));
    worker.awaitEnd();
    EXPECT_EQ(worker.rounds, 1);
    EXPECT_EQ(worker.deinits, 1);
}

TEST(UserThread, failed_init_skips_everything_else) {
    Worker worker;
    worker.initResult = -1;
    ASSERT_TRUE(worker.start(3));
    worker.awaitEnd();
    EXPECT_EQ(worker.rounds, 0);
    EXPECT_EQ(worker.deinits, 0);
}

TEST(UserThread, it_runs_from_the_return_of_start) {
    Worker worker;
    worker.held = true;
    ASSERT_TRUE(worker.start(1));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(worker.start(1)) << "still running";
    worker.held = false;
    worker.awaitEnd();
    EXPECT_EQ(worker.rounds, 1);
}

TEST(UserThread, job_that_was_started_is_done_even_if_it_is_stopped_at_once) {
    for (int i = 0; i < 50; ++i) {
        Worker worker;
        ASSERT_TRUE(worker.start(1));
        worker.stop(-1);
        EXPECT_EQ(worker.rounds, 1);
    }
}

TEST(UserThread, name_shows_in_proc_with_its_first_15_bytes) {
    Worker worker;
    for (const auto& [name, shown] :
         {std::pair{"aUpgrade_AMon", "aUpgrade_AMon"}, {"a_name_of_more_than_15_bytes", "a_name_of_more_"}}) {
        worker.setName(name);
        EXPECT_EQ(worker.getName(), name);
        worker.rounds = 0;
        worker.held = true;
        ASSERT_TRUE(worker.start(1));
        worker.awaitRound();
        EXPECT_EQ(kavro_test::slurp("/proc/self/task/" + std::to_string(worker.tid) + "/comm"),
                  std::string(shown) + "\n");
        worker.held = false;
        worker.stop(-1);
    }
}

class StackProbe : public UserThreadBase {
  public:
    explicit StackProbe(unsigned long size) { stackSize = size; }
    ~StackProbe() { stop(-1); }
    int threadFunc() override {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        std::size_t size = 0;
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        seen = size;
        return 0;
    }
    std::atomic<std::size_t> seen{0};
};

TEST(UserThread, stack_has_the_size_asked_for) {
    for (const unsigned long size : {262144UL, 1000000UL, 8UL << 20}) {
        StackProbe probe(size);
        ASSERT_TRUE(probe.start(1));
        probe.stop(-1);
        EXPECT_GE(probe.seen, size);
        EXPECT_LT(probe.seen, size + (1 << 20));
    }
}

TEST(UserThread, stack_of_next_to_nothing_is_raised_to_the_least) {
    StackProbe probe(1);
    ASSERT_TRUE(probe.start(1));
    probe.stop(-1);
    EXPECT_GE(probe.seen, static_cast<std::size_t>(PTHREAD_STACK_MIN));
}

TEST(UserThread, stack_that_cannot_be_had_is_a_failed_start) {
    Worker worker;
    worker.setStackSize(1UL << 46);
    EXPECT_FALSE(worker.start(1));
    EXPECT_FALSE(worker.isRunning());
    worker.setStackSize(262144);
    EXPECT_TRUE(worker.start(1));
}

TEST(UserThread, impossible_priority_is_a_failed_start) {
    Worker worker;
    worker.setPriority(1000);
    EXPECT_FALSE(worker.start(1));
    EXPECT_FALSE(worker.isRunning());
}

TEST(UserThread, stop_gives_up_waiting_after_its_time) {
    Worker worker;
    worker.held = true;
    ASSERT_TRUE(worker.start(-1));
    worker.awaitRound();
    worker.stop(20);
    EXPECT_TRUE(worker.isRunning());
    worker.stop(0);
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(worker.start(1));
    worker.held = false;
    worker.awaitEnd();
    EXPECT_EQ(worker.rounds, 1) << "the repetition was asked to end";
    EXPECT_TRUE(worker.start(1)) << "works again once the old thread is over";
    worker.stop(-1);
    EXPECT_EQ(worker.rounds, 2);
}

TEST(UserThread, threads_that_end_alone_are_not_left_over) {
    const int before = threadsAtFirst();
    {
        Worker worker;
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(worker.start(1));
            worker.awaitEnd();
        }
    }
    EXPECT_TRUE(comesDownTo(before));
}

TEST(UserThread, it_starts_again_after_a_stop) {
    Worker worker;
    for (int i = 1; i <= 20; ++i) {
        ASSERT_TRUE(worker.start(-1));
        worker.stop(-1);
        EXPECT_EQ(worker.inits, i);
        EXPECT_EQ(worker.deinits, i);
    }
}

TEST(UserThread, stop_twice_and_without_start_does_nothing) {
    Worker worker;
    worker.stop(10);
    ASSERT_TRUE(worker.start(1));
    worker.stop(-1);
    worker.stop(-1);
    EXPECT_EQ(worker.rounds, 1);
}

class SelfStopping : public UserThreadBase {
  public:
    ~SelfStopping() { stop(-1); }
    int threadFunc() override {
        ++rounds;
        stop(-1);
        return 0;
    }
    std::atomic<int> rounds{0};
};

TEST(UserThread, stop_from_the_thread_itself_only_asks) {
    SelfStopping thread;
    ASSERT_TRUE(thread.start(-1));
    while (thread.isRunning()) {
        pause();
    }
    EXPECT_EQ(thread.rounds, 1);
}

TEST(UserThread, two_may_stop_it_at_once) {
    for (int i = 0; i < 50; ++i) {
        Worker worker;
        ASSERT_TRUE(worker.start(-1));
        std::thread other([&] { worker.stop(-1); });
        worker.stop(-1);
        EXPECT_FALSE(worker.isRunning());
        other.join();
    }
}

TEST(UserThread, starts_and_stops_of_many_threads_do_not_disturb_each_other) {
    Worker worker;
    std::atomic<int> started = 0;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 100; ++round) {
                if (i % 2 == 0) {
                    started += worker.start(round % 2 == 0 ? -1 : 1) ? 1 : 0;
                } else {
                    worker.stop(round % 3 - 1);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    worker.stop(-1);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_EQ(worker.inits, started);
    EXPECT_EQ(worker.deinits, started);
}

// Its rounds last for an hour.
class Sleeper : public UserThreadBase {
  public:
    ~Sleeper() { stop(-1); }
    int deinitFunc() override {
        ++deinits;
        return 0;
    }
    int threadFunc() override {
        const auto last = [this](void*) { unwound = true; };
        const std::unique_ptr<void, decltype(last)> onTheWayOut(this, last);
        if (open) {
            const COMMON_YR::StopWindow window;
            asleep = true;
            sleep(3600);
        }
        asleep = true;
        while (!released) {
            pause();
        }
        return 0;
    }
    void awaitSleep() const {
        while (!asleep) {
            pause();
        }
    }

    bool open = true;
    std::atomic<bool> asleep{false};
    std::atomic<bool> released{false};
    std::atomic<bool> unwound{false};
    std::atomic<int> deinits{0};
};

TEST(UserThread, stop_cuts_a_pause_short_that_the_body_has_opened) {
    const int before = threadsAtFirst();
    Sleeper sleeper;
    for (int i = 1; i <= 3; ++i) {
        sleeper.asleep = false;
        sleeper.unwound = false;
        ASSERT_TRUE(sleeper.start(-1));
        sleeper.awaitSleep();
        sleeper.stop(-1);
        EXPECT_FALSE(sleeper.isRunning());
        EXPECT_TRUE(sleeper.unwound);
        EXPECT_EQ(sleeper.deinits, i);
    }
    EXPECT_TRUE(comesDownTo(before));
}

TEST(UserThread, stop_leaves_a_body_alone_that_has_opened_nothing) {
    Sleeper sleeper;
    sleeper.open = false;
    ASSERT_TRUE(sleeper.start(-1));
    sleeper.awaitSleep();
    sleeper.stop(20);
    EXPECT_TRUE(sleeper.isRunning());
    EXPECT_FALSE(sleeper.unwound);
    sleeper.released = true;
    sleeper.stop(-1);
    EXPECT_FALSE(sleeper.isRunning());
    EXPECT_EQ(sleeper.deinits, 1);
}

TEST(UserThread, start_and_stop_ignore_a_pending_cancel) {
    bool over = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        {
            Worker worker;
            EXPECT_TRUE(worker.start(-1));
            worker.stop(-1);
        }
        over = true;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    thread.join();
    EXPECT_TRUE(over);
}

std::atomic<bool> abandonedEntered{false};
std::atomic<bool> abandonedHeld{true};

class Abandoned final : public UserThreadBase {
  public:
    int threadFunc() override {
        abandonedEntered = true;
        while (abandonedHeld) {
            pause();
        }
        return 0;
    }
};

TEST(UserThread, body_that_outlives_its_object_ends_without_touching_it) {
    const int before = threadsAtFirst();
    auto thread = std::make_unique<Abandoned>();
    ASSERT_TRUE(thread->start(-1));
    while (!abandonedEntered) {
        pause();
    }
    thread.reset();
    abandonedHeld = false;
    EXPECT_TRUE(comesDownTo(before));
}

}  // namespace
