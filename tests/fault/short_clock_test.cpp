// Time passes faster under the shortened clock, and all that waits for it agrees. The real time is told by the
// kernel, asked past the C library.

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

double secondsOf(const timespec& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double realSeconds() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return secondsOf(now);
}

double shownSeconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return secondsOf(now);
}

timespec deadlineIn(clockid_t clock, double seconds) {
    const double at = shownSeconds(clock) + seconds;
    timespec deadline{};
    deadline.tv_sec = static_cast<time_t>(at);
    deadline.tv_nsec = static_cast<long>((at - static_cast<double>(deadline.tv_sec)) * 1e9);
    return deadline;
}

// A wait of so many seconds: the clock shows that they have passed, and they have not.
constexpr double kPause = 60.0;

struct Wait {
    const char* name;
    std::function<void()> call;
};

void PrintTo(const Wait& wait, std::ostream* out) {
    *out << wait.name;
}

void waitForCondition(std::function<int(pthread_cond_t*, pthread_mutex_t*)> wait) {
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(wait(&condition, &mutex), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
}

void waitByMonotonicCondition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_t condition;
    pthread_cond_init(&condition, &attributes);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    const timespec deadline = deadlineIn(CLOCK_MONOTONIC, kPause);
    EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &deadline), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    pthread_cond_destroy(&condition);
}

// While another thread holds it.
void waitForLock() {
    std::timed_mutex mutex;
    // cppcheck-suppress localMutex  // the thread below has it too
    const std::lock_guard<std::timed_mutex> lock(mutex);
    std::thread([&mutex] { EXPECT_FALSE(mutex.try_lock_for(std::chrono::minutes(1))); }).join();
}

void waitForSemaphore() {
    sem_t semaphore;
    sem_init(&semaphore, 0, 0);
    const timespec deadline = deadlineIn(CLOCK_REALTIME, kPause);
    EXPECT_EQ(sem_timedwait(&semaphore, &deadline), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    sem_destroy(&semaphore);
}

void waitForEvents() {
    const int poller = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    EXPECT_EQ(epoll_wait(poller, &event, 1, 60000), 0);
    close(poller);
}

const Wait kWaits[] = {
    {"sleep", [] { EXPECT_EQ(sleep(60), 0U); }},
    {"usleep", [] { EXPECT_EQ(usleep(60000000), 0); }},
    {"sleep_for", [] { std::this_thread::sleep_for(std::chrono::minutes(1)); }},
    {"clock_nanosleep_until",
     [] {
         const timespec deadline = deadlineIn(CLOCK_MONOTONIC, kPause);
         EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr), 0);
     }},
    {"condition_wait_for",
     [] {
         std::condition_variable condition;
         std::mutex mutex;
         std::unique_lock<std::mutex> lock(mutex);
         EXPECT_FALSE(condition.wait_for(lock, std::chrono::minutes(1), [] { return false; }));
     }},
    {"condition_wait_until_system_time",
     [] {
         std::condition_variable condition;
         std::mutex mutex;
         std::unique_lock<std::mutex> lock(mutex);
         const auto deadline = std::chrono::system_clock::now() + std::chrono::minutes(1);
         EXPECT_FALSE(condition.wait_until(lock, deadline, [] { return false; }));
     }},
    {"timedwait",
     [] {
         waitForCondition([](pthread_cond_t* condition, pthread_mutex_t* mutex) {
             const timespec deadline = deadlineIn(CLOCK_REALTIME, kPause);
             return pthread_cond_timedwait(condition, mutex, &deadline);
         });
     }},
    {"timedwait_by_the_monotonic_clock", waitByMonotonicCondition},
    {"timed_mutex", waitForLock},
    {"semaphore", waitForSemaphore},
    {"poll", [] { EXPECT_EQ(poll(nullptr, 0, 60000), 0); }},
    {"ppoll",
     [] {
         const timespec minute{60, 0};
         EXPECT_EQ(ppoll(nullptr, 0, &minute, nullptr), 0);
     }},
    {"select",
     [] {
         timeval minute{60, 0};
         EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &minute), 0);
     }},
    {"epoll", waitForEvents},
};

class ShortClock : public testing::TestWithParam<Wait> {};

TEST_P(ShortClock, shows_the_whole_wait_and_takes_a_part_of_it) {
    const double real = realSeconds();
    const double monotonic = shownSeconds(CLOCK_MONOTONIC);
    const double wall = shownSeconds(CLOCK_REALTIME);
    GetParam().call();
    EXPECT_GE(shownSeconds(CLOCK_MONOTONIC) - monotonic, kPause);
    EXPECT_GE(shownSeconds(CLOCK_REALTIME) - wall, kPause * 0.999);
    EXPECT_GE(realSeconds() - real, kPause / 20 * 0.9);
    EXPECT_LT(realSeconds() - real, kPause);
}

INSTANTIATE_TEST_SUITE_P(Waits, ShortClock, testing::ValuesIn(kWaits),
                         [](const auto& wait) { return std::string(wait.param.name); });

TEST(ShortClock, tells_the_same_by_all_functions) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const double shown = shownSeconds(CLOCK_REALTIME);
    EXPECT_NEAR(static_cast<double>(now.tv_sec), shown, 600);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), shown, 600);
}

TEST(ShortClock, leaves_the_time_that_a_program_computes) {
    timespec shown{};
    timespec real{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &shown);
    syscall(SYS_clock_gettime, CLOCK_PROCESS_CPUTIME_ID, &real);
    EXPECT_NEAR(secondsOf(shown), secondsOf(real), 1.0);
}

TEST(ShortClock, goes_on_in_a_program_that_is_started) {
    sleep(60);
    const double shown = shownSeconds(CLOCK_REALTIME);
    const std::string later = "test $(date +%s) -ge " + std::to_string(static_cast<long>(shown));
    EXPECT_EQ(std::system(later.c_str()), 0);
    const double real = realSeconds();
    EXPECT_EQ(std::system("sleep 60"), 0);
    EXPECT_LT(realSeconds() - real, kPause);
}

TEST(ShortClock, does_not_wait_for_a_time_that_is_over) {
    std::condition_variable condition;
    std::mutex mutex;
    // cppcheck-suppress localMutex  // a condition is waited for with one
    std::unique_lock<std::mutex> lock(mutex);
    const auto past = steady_clock::now() - milliseconds(1);
    EXPECT_EQ(condition.wait_until(lock, past), std::cv_status::timeout);
}

TEST(ShortClock, leaves_another_program_the_time_to_answer) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([&ends] {
        const timespec pause{0, 100000000};
        syscall(SYS_nanosleep, &pause, nullptr);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
    });
    pollfd readable{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 500), 1);
    writer.join();
    close(ends[0]);
    close(ends[1]);
}

TEST(ShortClock, lets_an_endless_wait_be_ended) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([&ends] {
        sleep(1);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
    });
    pollfd readable{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, -1), 1);
    writer.join();
    close(ends[0]);
    close(ends[1]);
}

void* sleepForLong(void* unwound) {
    struct Guard {
        ~Guard() { *flag = true; }
        bool* flag;
    } guard{static_cast<bool*>(unwound)};
    sleep(100000);
    return nullptr;
}

TEST(ShortClock, lets_a_pause_be_cancelled) {
    bool unwound = false;
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, nullptr, sleepForLong, &unwound), 0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

}  // namespace
