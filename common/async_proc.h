// A runner for jobs of one kind, each on a thread of its own.
//
// run() starts a job at once; a monitor thread sweeps finished jobs away every 100 ms, and the number of jobs
// still listed (jobCount()) is what a caller polls to learn that all are over. A job hands its result to the
// callback that was named when it was submitted; the runner keeps none.
#pragma once

#include <unistd.h>

#include <list>
#include <mutex>
#include <string>
#include <utility>

#include "common/cancellation.h"
#include "common/export.h"
#include "common/user_thread.h"
#include "common/utility.h"

namespace COMMON_YR {

// Carries a pointer for the runner's user; the runner never looks at it.
struct UpProc {
    // Takes the pointer, which stays the caller's.
    explicit UpProc(void* pointer = nullptr) : userPointer(pointer) {}
    void* userPointer;  // may be null
};

// Carries the runner that a thread belongs to.
struct PrivProc {
    // Takes the runner, which must outlive the thread.
    explicit PrivProc(void* pointer = nullptr) : owner(pointer) {}
    void* owner;  // an AsyncProc; null for none
};

// In is copied at submission. Out is default-initialised on the job's stack, so a job that leaves an int
// unwritten hands an indeterminate value to its callback.
//
// Not deletable through a base. A derived class that overrides process() must have no job listed any more
// when it is destroyed; one that is still listed then is left alone, thread and all.
template <typename In, typename Out>
class KAVRO_EXPORT AsyncProc : public UpProc {
  public:
    using Process = int (*)(In&, Out&);           // a job's work, as process()
    using Callback = void (*)(int result, Out&);  // what is told of a job's end, on its thread

    // Names the runner (its threads are "NAME_AMon" and "NAME_JOB") and starts its monitor. With neither a
    // name nor a user pointer there is no monitor: jobs run, but stay listed for ever.
    AsyncProc(const char* runnerName, void* user) {
        if (runnerName == nullptr && user == nullptr) {
            return;
        }
        if (runnerName != nullptr) {
            name = runnerName;
        }
        userPointer = user;
        monitor.setName(name + "_AMon");
        monitor.owner = this;
        monitor.start(kRepeat);
    }

    // Waits one sweep period for the last jobs, then stops the monitor.
    ~AsyncProc() {
        const CancelHold hold;
        usleep(kDestroyPauseUs);
        const unsigned long left = jobCount();
        if (left != 0) {
            printLog(2, "AsyncProc(%s) has %lu thrd not deleted!\n", name.c_str(), left);
        }
        monitor.stop(UserThreadBase::kStopWaitMs);
    }

    AsyncProc(const AsyncProc&) = delete;
    AsyncProc& operator=(const AsyncProc&) = delete;

    // The job: writes output and returns a result, both of which go to the callback.
    virtual int process(In& input, Out& output) {
        (void)input, (void)output;
        printLog(3, "base process\n");
        return 0;
    }

    // Submits a job and returns at once. callback (may be null) runs on the job's thread when the job is
    // over. jobName is the suffix of the thread's name; null stands for the number of jobs listed. processFn
    // (may be null) replaces process(). A job whose thread cannot be started is dropped without a word:
    // nothing is listed, no callback runs.
    void run(In& input, Callback callback, const char* jobName, Process processFn) {
        const CancelHold hold;
        const std::string suffix = jobName != nullptr ? std::string(jobName) : std::to_string(jobCount());
        auto* thread = new AsyncThread(input, processFn, callback);
        thread->setName(name + "_" + suffix);
        thread->owner = this;
        if (!thread->start(kOnce)) {
            delete thread;
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push_back(thread);
    }

    // The number of jobs not yet swept away. Waits for a sweep in progress.
    unsigned long jobCount() {
        const CancelHold hold;
        const std::lock_guard<std::mutex> lock(mutex);
        return jobs.size();
    }

  private:
    static constexpr int kRepeat = -1;
    static constexpr int kOnce = 1;
    static constexpr int kGoOn = 1;
    static constexpr unsigned kSweepPeriodUs = 100000;
    static constexpr unsigned kDestroyPauseUs = 105000;  // a sweep period and a little more

    class AsyncThread : public UserThreadBase, public PrivProc {
      public:
        AsyncThread(const In& jobInput, Process processFn, Callback jobCallback)
            : input(jobInput), processFunction(processFn), callback(jobCallback) {}
        virtual ~AsyncThread() { stop(kStopWaitMs); }

        int threadFunc() override {
            Out output;
            const int result = work(output);
            if (callback != nullptr) {
                callback(result, output);
            }
            return kGoOn;
        }

      private:
        int work(Out& output) {
            if (processFunction != nullptr) {
                return processFunction(input, output);
            }
            if (owner != nullptr) {
                return static_cast<AsyncProc*>(owner)->process(input, output);
            }
            return -1;
        }

        In input;
        Process processFunction;
        Callback callback;
    };

    class AsyncThreadMonitor : public UserThreadBase, public PrivProc {
      public:
        AsyncThreadMonitor() { setName("asyncMonitor"); }

        int threadFunc() override {
            static_cast<AsyncProc*>(owner)->sweep();
            const StopWindow window;
            usleep(kSweepPeriodUs);
            return kGoOn;
        }
    };

    // Deletes finished threads under the lock, so that a count of zero means that nothing of a job is left.
    void sweep() {
        const std::lock_guard<std::mutex> lock(mutex);
        for (auto job = jobs.begin(); job != jobs.end();) {
            if ((*job)->isRunning()) {
                ++job;
                continue;
            }
            delete *job;
            job = jobs.erase(job);
        }
    }

    // In this order, so that the monitor's storage outlives nothing that it uses.
    std::mutex mutex;
    std::list<AsyncThread*> jobs;
    AsyncThreadMonitor monitor;
    std::string name = "aProc";
};

}  // namespace COMMON_YR
