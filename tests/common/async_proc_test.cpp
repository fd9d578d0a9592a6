#include "common/async_proc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/common/libc_spies.h"
#include "tests/common/rendezvous.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"

namespace {

using testsupport::eventually;
using testsupport::Gate;

constexpr unsigned long kSweepPeriodUs = 100000;
constexpr unsigned long kDestroyPauseUs = 105000;

// Counts its copies, so that a test sees when a job's copy is made and when it is gone.
struct Input {
    explicit Input(int number = 0) : value(number) { ++alive; }
    Input(const Input& other) : value(other.value), work(other.work) { ++alive; }
    Input& operator=(const Input&) = default;
    ~Input() { --alive; }

    int value;
    std::function<void()> work;  // what the job does
    static inline std::atomic<int> alive{0};
};

struct Report {
    int result = 0;
    int output = 0;
    std::string threadName;
};

// What callbacks told; immortal, since a job may go on at the end of a test.
class Reports {
  public:
    void add(const Report& report) {
        const std::lock_guard<std::mutex> lock(mutex);
        reports.push_back(report);
    }
    std::vector<Report> all() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return reports;
    }
    unsigned long count() const { return all().size(); }

  private:
    mutable std::mutex mutex;
    std::vector<Report> reports;
};

Reports& reports() {
    static auto* const object = new Reports;
    return *object;
}

void reportBack(int result, int& output) {
    reports().add({result, output, spy::ownThreadName()});
}

int doWork(Input& input, int& output) {
    output = input.value * 10;
    if (input.work) {
        input.work();
    }
    return input.value;
}

using Runner = COMMON_YR::AsyncProc<Input, int>;

// A concrete runner, as the manager has one.
class Doubler : public Runner {
  public:
    using AsyncProc::AsyncProc;
    int process(Input& input, int& output) override {
        output = input.value * 2;
        return -input.value;
    }
};

class AsyncProcTest : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        spy::sleeps().clear();
        // Whatever a sanitizer starts with the first thread is there before threads are counted.
        Runner unused("warmup", nullptr);
    }

    static bool becomesIdle(Runner& runner) {
        return eventually([&] { return runner.jobCount() == 0; });
    }
    static bool sweptAgain(const std::string& monitor, unsigned long times = 2) {
        const unsigned long before = spy::sleeps().count(monitor, kSweepPeriodUs);
        return eventually([&] { return spy::sleeps().count(monitor, kSweepPeriodUs) >= before + times; });
    }
    static bool threadIsThere(const std::string& name) {
        const std::vector<std::string> names = testsupport::threadNames();
        return std::count(names.begin(), names.end(), name) != 0;
    }
    // A thread that nobody is meant to join.
    static void giveUp(pthread_t thread) { EXPECT_EQ(pthread_detach(thread), 0); }
    static Input waitingFor(Gate& gate, int value = 1) {
        Input input(value);
        input.work = [&gate] { gate.pass(); };
        return input;
    }
};

// --- what a runner is ----------------------------------------------------------------------------

static_assert(std::is_base_of_v<COMMON_YR::UpProc, Runner>);
static_assert(!std::is_polymorphic_v<COMMON_YR::UpProc>);
static_assert(!std::is_polymorphic_v<COMMON_YR::PrivProc>);
static_assert(std::is_polymorphic_v<Runner>);
static_assert(!std::has_virtual_destructor_v<Runner>);
static_assert(!std::is_copy_constructible_v<Runner>);

TEST_F(AsyncProcTest, plain_bases_carry_the_pointer_that_they_are_given) {
    int target = 0;
    EXPECT_EQ(COMMON_YR::UpProc(&target).userPointer, &target);
    EXPECT_EQ(COMMON_YR::UpProc().userPointer, nullptr);
    EXPECT_EQ(COMMON_YR::PrivProc(&target).owner, &target);
    EXPECT_EQ(COMMON_YR::PrivProc().owner, nullptr);
}

TEST_F(AsyncProcTest, user_pointer_is_kept_and_null_without_one) {
    int user = 0;
    const Runner with("aRunner", &user);
    const Runner without("aRunner", nullptr);
    EXPECT_EQ(with.userPointer, &user);
    EXPECT_EQ(without.userPointer, nullptr);
}

// --- jobs ----------------------------------------------------------------------------------------

TEST_F(AsyncProcTest, callback_gets_result_and_output_of_the_process_function) {
    Runner runner("aRunner", nullptr);
    Input input(7);
    runner.run(input, &reportBack, "JOB", &doWork);
    ASSERT_TRUE(becomesIdle(runner));
    ASSERT_EQ(reports().count(), 1U);
    EXPECT_EQ(reports().all()[0].result, 7);
    EXPECT_EQ(reports().all()[0].output, 70);
}

TEST_F(AsyncProcTest, without_a_process_function_the_virtual_one_works) {
    Doubler runner("aRunner", nullptr);
    Input input(7);
    runner.run(input, &reportBack, "JOB", nullptr);
    ASSERT_TRUE(becomesIdle(runner));
    ASSERT_EQ(reports().count(), 1U);
    EXPECT_EQ(reports().all()[0].result, -7);
    EXPECT_EQ(reports().all()[0].output, 14);
}

TEST_F(AsyncProcTest, a_process_function_goes_before_the_virtual_one) {
    Doubler runner("aRunner", nullptr);
    Input input(7);
    runner.run(input, &reportBack, "JOB", &doWork);
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().all().at(0).result, 7);
}

TEST_F(AsyncProcTest, base_process_logs_and_returns_zero) {
    Runner runner("aRunner", nullptr);
    Input input;
    int output = 5;
    EXPECT_EQ(runner.process(input, output), 0);
    EXPECT_EQ(output, 5);
    ASSERT_EQ(fake::log().lines().size(), 1U);
    EXPECT_TRUE(fake::logged(3, "base process\n"));
}

TEST_F(AsyncProcTest, a_job_of_a_plain_runner_is_the_base_process) {
    Runner runner("aRunner", nullptr);
    Input input;
    runner.run(input, nullptr, "JOB", nullptr);
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_TRUE(fake::loggedTimes(1, 3, "base process\n"));
    EXPECT_EQ(fake::log().lines().at(0).threadName, "aRunner_JOB");
}

TEST_F(AsyncProcTest, input_may_go_out_of_scope_at_once) {
    Runner runner("aRunner", nullptr);
    Gate gate;
    {
        Input input = waitingFor(gate, 3);
        runner.run(input, &reportBack, "JOB", &doWork);
        input.value = 99;
    }
    gate.open();
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().all().at(0).result, 3);
}

TEST_F(AsyncProcTest, a_job_without_a_callback_runs_and_is_swept) {
    Runner runner("aRunner", nullptr);
    std::atomic<bool> ran{false};
    Input input;
    input.work = [&] { ran = true; };
    runner.run(input, nullptr, "JOB", &doWork);
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_TRUE(ran);
}

TEST_F(AsyncProcTest, run_returns_while_the_job_is_at_work) {
    Runner runner("aRunner", nullptr);
    Gate gate;
    Input input = waitingFor(gate);
    runner.run(input, &reportBack, "JOB", &doWork);
    EXPECT_EQ(runner.jobCount(), 1U);
    EXPECT_EQ(reports().count(), 0U);
    gate.open();
    EXPECT_TRUE(becomesIdle(runner));
}

TEST_F(AsyncProcTest, jobs_run_at_the_same_time) {
    constexpr unsigned kJobs = 5;
    Runner runner("aRunner", nullptr);
    std::atomic<unsigned> atWork{0};
    Input input;
    input.work = [&] {
        ++atWork;
        EXPECT_TRUE(eventually([&] { return atWork == kJobs; }));
    };
    for (unsigned i = 0; i < kJobs; ++i) {
        runner.run(input, &reportBack, nullptr, &doWork);
    }
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().count(), kJobs);
}

TEST_F(AsyncProcTest, every_one_of_many_jobs_reports_and_is_swept) {
    constexpr unsigned kJobs = 200;
    Runner runner("aRunner", nullptr);
    Input input(1);
    for (unsigned i = 0; i < kJobs; ++i) {
        runner.run(input, &reportBack, "JOB", &doWork);
    }
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().count(), kJobs);
}

TEST_F(AsyncProcTest, a_callback_may_use_its_runner) {
    static std::optional<Runner> runner;
    static std::atomic<unsigned long> seen{0};
    runner.emplace("aRunner", nullptr);
    Input input;
    runner->run(
        input,
        [](int, int&) {
            seen = runner->jobCount() + 1;
            Input second(2);
            runner->run(second, &reportBack, "NEXT", &doWork);
        },
        "JOB", &doWork);
    EXPECT_TRUE(eventually([] { return reports().count() == 1; }));
    EXPECT_GT(seen, 0U);
    EXPECT_EQ(reports().all().at(0).threadName, "aRunner_NEXT");
    EXPECT_TRUE(becomesIdle(*runner));
    runner.reset();
}

// --- names ---------------------------------------------------------------------------------------

TEST_F(AsyncProcTest, threads_carry_the_runners_name_and_their_own) {
    Runner runner("aUpgrade", nullptr);
    Gate gate;
    Input input = waitingFor(gate);
    runner.run(input, nullptr, "MPU", &doWork);
    runner.run(input, nullptr, "MCU", &doWork);
    EXPECT_TRUE(eventually([] { return threadIsThere("aUpgrade_AMon"); }));
    EXPECT_TRUE(eventually([] { return threadIsThere("aUpgrade_MPU"); }));
    EXPECT_TRUE(eventually([] { return threadIsThere("aUpgrade_MCU"); }));
    gate.open();
    EXPECT_TRUE(becomesIdle(runner));
}

TEST_F(AsyncProcTest, jobs_without_a_name_are_numbered_by_the_jobs_listed) {
    Runner runner("aRunner", nullptr);
    Gate gate;
    Input input = waitingFor(gate);
    runner.run(input, nullptr, nullptr, &doWork);
    runner.run(input, nullptr, nullptr, &doWork);
    EXPECT_TRUE(eventually([] { return threadIsThere("aRunner_0"); }));
    EXPECT_TRUE(eventually([] { return threadIsThere("aRunner_1"); }));
    gate.open();
    EXPECT_TRUE(becomesIdle(runner));
}

TEST_F(AsyncProcTest, numbering_starts_again_when_no_job_is_listed) {
    Runner runner("aRunner", nullptr);
    Input input;
    for (int i = 0; i < 2; ++i) {
        runner.run(input, &reportBack, nullptr, &doWork);
        ASSERT_TRUE(becomesIdle(runner));
    }
    ASSERT_EQ(reports().count(), 2U);
    EXPECT_EQ(reports().all()[0].threadName, "aRunner_0");
    EXPECT_EQ(reports().all()[1].threadName, "aRunner_0");
}

TEST_F(AsyncProcTest, with_a_user_pointer_alone_the_runner_is_named_aProc_and_sweeps) {
    int user = 0;
    Runner runner(nullptr, &user);
    EXPECT_EQ(runner.userPointer, &user);
    EXPECT_TRUE(eventually([] { return threadIsThere("aProc_AMon"); }));
    Input input;
    runner.run(input, &reportBack, "JOB", &doWork);
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().all().at(0).threadName, "aProc_JOB");
}

// --- the runner that never sweeps ----------------------------------------------------------------

TEST_F(AsyncProcTest, with_neither_name_nor_user_pointer_there_is_no_monitor) {
    const unsigned long before = testsupport::threadCount();
    const Runner runner(nullptr, nullptr);
    EXPECT_EQ(testsupport::threadCount(), before);
    EXPECT_EQ(runner.userPointer, nullptr);
}

TEST_F(AsyncProcTest, without_a_monitor_jobs_run_but_stay_listed) {
    // The thread objects of jobs that are still listed are left alone: here they stay with the runner.
    static auto* const runner = new Runner(nullptr, nullptr);
    Input input(4);
    for (unsigned i = 1; i <= 2; ++i) {
        runner->run(input, &reportBack, nullptr, &doWork);
        ASSERT_TRUE(eventually([i] { return reports().count() == i; }));
        giveUp(spy::lastThread());
    }
    EXPECT_TRUE(eventually([] { return !threadIsThere("aProc_0") && !threadIsThere("aProc_1"); }));
    {
        // Meanwhile another runner has swept.
        const Runner other("other", nullptr);
        ASSERT_TRUE(sweptAgain("other_AMon", 3));
    }
    EXPECT_EQ(runner->jobCount(), 2U);
    EXPECT_EQ(reports().all()[0].threadName, "aProc_0");
    EXPECT_EQ(reports().all()[1].threadName, "aProc_1");
}

// --- sweeping ------------------------------------------------------------------------------------

TEST_F(AsyncProcTest, monitor_sweeps_every_100_ms) {
    const Runner runner("aRunner", nullptr);
    EXPECT_TRUE(sweptAgain("aRunner_AMon", 3));
}

TEST_F(AsyncProcTest, a_job_stays_listed_until_its_callback_has_returned) {
    static Gate gate;
    static std::atomic<bool> inCallback{false};
    Runner runner("aRunner", nullptr);
    Input input;
    runner.run(
        input,
        [](int, int&) {
            inCallback = true;
            gate.pass();
        },
        "JOB", &doWork);
    ASSERT_TRUE(eventually([] { return inCallback.load(); }));
    ASSERT_TRUE(sweptAgain("aRunner_AMon"));
    EXPECT_EQ(runner.jobCount(), 1U);
    gate.open();
    EXPECT_TRUE(becomesIdle(runner));
}

TEST_F(AsyncProcTest, nothing_of_a_job_is_left_when_the_count_has_dropped) {
    const unsigned long threads = testsupport::threadCount();
    Runner runner("aRunner", nullptr);
    {
        Input input(1);
        for (int i = 0; i < 10; ++i) {
            runner.run(input, &reportBack, "JOB", &doWork);
        }
    }
    ASSERT_TRUE(becomesIdle(runner));
    EXPECT_EQ(Input::alive, 0);
    EXPECT_TRUE(testsupport::waitForThreadCount(threads + 1));
}

TEST_F(AsyncProcTest, a_running_job_does_not_keep_the_finished_ones_listed) {
    Runner runner("aRunner", nullptr);
    Gate gate;
    Input quick(1);
    Input slow = waitingFor(gate, 2);
    runner.run(quick, &reportBack, "QUICK", &doWork);
    runner.run(slow, &reportBack, "SLOW", &doWork);
    runner.run(quick, &reportBack, "QUICK", &doWork);
    EXPECT_TRUE(eventually([&] { return runner.jobCount() == 1; }));
    ASSERT_TRUE(sweptAgain("aRunner_AMon"));
    EXPECT_EQ(runner.jobCount(), 1U);
    EXPECT_EQ(reports().count(), 2U);
    gate.open();
    EXPECT_TRUE(becomesIdle(runner));
    EXPECT_EQ(reports().count(), 3U);
}

// --- threads that cannot be started --------------------------------------------------------------

TEST_F(AsyncProcTest, a_job_whose_thread_cannot_start_is_dropped_without_a_word) {
    Runner runner("aRunner", nullptr);
    {
        Input input(1);
        const int copies = Input::alive;
        spy::failThreads({true});
        runner.run(input, &reportBack, "JOB", &doWork);
        EXPECT_EQ(runner.jobCount(), 0U);
        EXPECT_EQ(Input::alive, copies);
    }
    ASSERT_TRUE(sweptAgain("aRunner_AMon"));
    EXPECT_EQ(reports().count(), 0U);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(AsyncProcTest, the_job_after_one_that_could_not_start_runs) {
    Runner runner("aRunner", nullptr);
    Input input(1);
    spy::failThreads({true, false});
    runner.run(input, &reportBack, "FIRST", &doWork);
    runner.run(input, &reportBack, "SECOND", &doWork);
    ASSERT_TRUE(becomesIdle(runner));
    ASSERT_EQ(reports().count(), 1U);
    EXPECT_EQ(reports().all()[0].threadName, "aRunner_SECOND");
}

TEST_F(AsyncProcTest, a_monitor_that_cannot_start_goes_unnoticed) {
    spy::failThreads({true});
    static auto* const runner = new Runner("aRunner", nullptr);
    Input input(1);
    runner->run(input, &reportBack, "JOB", &doWork);
    EXPECT_TRUE(eventually([] { return reports().count() == 1; }));
    giveUp(spy::lastThread());
    EXPECT_FALSE(threadIsThere("aRunner_AMon"));
    EXPECT_EQ(runner->jobCount(), 1U);
    EXPECT_TRUE(fake::nothingLogged());
}

// --- destruction ---------------------------------------------------------------------------------

TEST_F(AsyncProcTest, destruction_waits_for_a_last_sweep_and_stops_the_monitor_without_a_word) {
    const unsigned long threads = testsupport::threadCount();
    {
        const Runner runner("aRunner", nullptr);
        ASSERT_TRUE(eventually([] { return threadIsThere("aRunner_AMon"); }));
        EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), kDestroyPauseUs), 1U);  // that of the warm-up
    }
    EXPECT_EQ(spy::sleeps().count(spy::ownThreadName(), kDestroyPauseUs), 2U);
    EXPECT_TRUE(testsupport::waitForThreadCount(threads));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(AsyncProcTest, a_job_that_ends_before_the_last_sweep_is_swept_by_it) {
    {
        Runner runner("aRunner", nullptr);
        Input input(1);
        // The pause begins when the job is gone from the list, as in a sweep that just makes it.
        spy::sleeps().onSleep([&](const spy::Sleep& sleep) {
            return sleep.microseconds != kDestroyPauseUs || !becomesIdle(runner);
        });
        runner.run(input, &reportBack, "JOB", &doWork);
    }
    spy::sleeps().onSleep({});
    EXPECT_EQ(reports().count(), 1U);
    EXPECT_TRUE(fake::nothingLogged());
}

// Keeps what the jobs of a destroyed runner hold on to.
struct Abandoned {
    Gate gate;
    std::vector<const Input*> inputs;
    std::mutex mutex;
};
Abandoned& abandoned() {
    static auto* const object = new Abandoned;
    return *object;
}

int waitAbandoned(Input& input, int& output) {
    output = 0;
    {
        const std::lock_guard<std::mutex> lock(abandoned().mutex);
        abandoned().inputs.push_back(&input);
    }
    abandoned().gate.pass();
    return input.value;
}

TEST_F(AsyncProcTest, destruction_tells_of_a_job_still_listed) {
    {
        Runner runner("aUpgrade", nullptr);
        Input input(1);
        runner.run(input, nullptr, "MPU", &waitAbandoned);
    }
    ASSERT_EQ(fake::log().lines().size(), 1U);
    EXPECT_TRUE(fake::logged(2, "AsyncProc(aUpgrade) has 1 thrd not deleted!\n"));
}

TEST_F(AsyncProcTest, destruction_tells_the_number_of_jobs_still_listed) {
    {
        int user = 0;
        Runner runner(nullptr, &user);
        Input input(1);
        for (int i = 0; i < 3; ++i) {
            runner.run(input, nullptr, nullptr, &waitAbandoned);
        }
    }
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_TRUE(fake::logged(2, "AsyncProc(aProc) has 3 thrd not deleted!\n"));
}

TEST_F(AsyncProcTest, a_job_still_listed_at_destruction_is_left_alone_and_reports_later) {
    {
        Runner runner("aRunner", nullptr);
        Input input(6);
        runner.run(input, &reportBack, "JOB", &waitAbandoned);
        giveUp(spy::lastThread());
    }
    EXPECT_EQ(reports().count(), 0U);
    EXPECT_EQ(Input::alive, 1);
    EXPECT_TRUE(threadIsThere("aRunner_JOB"));
    EXPECT_FALSE(threadIsThere("aRunner_AMon"));
    abandoned().gate.open();
    EXPECT_TRUE(eventually([] { return reports().count() == 1; }));
    EXPECT_EQ(reports().all().at(0).result, 6);
    EXPECT_TRUE(eventually([] { return !threadIsThere("aRunner_JOB"); }));
    EXPECT_EQ(Input::alive, 1);
}

TEST_F(AsyncProcTest, a_finished_job_that_no_monitor_swept_is_told_too) {
    {
        Runner runner(nullptr, nullptr);
        Input input(1);
        runner.run(input, &reportBack, "JOB", &waitAbandoned);
        giveUp(spy::lastThread());
        abandoned().gate.open();
        ASSERT_TRUE(eventually([] { return reports().count() == 1; }));
    }
    EXPECT_TRUE(fake::loggedTimes(1, 2, "AsyncProc(aProc) has 1 thrd not deleted!\n"));
}

}  // namespace
