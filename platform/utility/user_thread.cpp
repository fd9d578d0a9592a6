// UserThreadBase over POSIX threads.

#include "common/user_thread.h"

#include <limits.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "common/cancellation.h"

namespace COMMON_YR {
namespace {

constexpr unsigned long kDefaultStackSize = 262144;
constexpr int kInheritedPriority = -1;
constexpr int kForEver = -1;
constexpr std::size_t kKernelNameLength = 15;

// A condition variable with deadlines on the monotonic clock. std::condition_variable waits by a call that
// tools which speed up the clock do not know.
class MonotonicCondition {
  public:
    MonotonicCondition() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~MonotonicCondition() { pthread_cond_destroy(&condition); }
    MonotonicCondition(const MonotonicCondition&) = delete;
    MonotonicCondition& operator=(const MonotonicCondition&) = delete;

    void notifyAll() { pthread_cond_broadcast(&condition); }
    void wait(std::mutex& locked) { pthread_cond_wait(&condition, locked.native_handle()); }
    // False when the deadline has passed.
    bool waitUntil(std::mutex& locked, const timespec& deadline) {
        return pthread_cond_timedwait(&condition, locked.native_handle(), &deadline) != ETIMEDOUT;
    }

  private:
    pthread_cond_t condition;
};

timespec deadlineIn(int waitMs) {
    constexpr long kMsPerSecond = 1000;
    constexpr long kNsPerMs = 1000000;
    constexpr long kNsPerSecond = 1000000000;
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += waitMs / kMsPerSecond;
    deadline.tv_nsec += waitMs % kMsPerSecond * kNsPerMs;
    if (deadline.tv_nsec >= kNsPerSecond) {
        deadline.tv_nsec -= kNsPerSecond;
        deadline.tv_sec += 1;
    }
    return deadline;
}

class ThreadAttributes {
  public:
    ThreadAttributes() { pthread_attr_init(&attributes); }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    bool setUp(unsigned long stackSize, int priority) {
        const auto page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
        const unsigned long least = std::max(stackSize, static_cast<unsigned long>(PTHREAD_STACK_MIN));
        if (pthread_attr_setstacksize(&attributes, (least + page - 1) / page * page) != 0) {
            return false;
        }
        if (priority == kInheritedPriority) {
            return true;
        }
        sched_param parameters = {};
        parameters.sched_priority = priority;
        return pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED) == 0 &&
               pthread_attr_setschedpolicy(&attributes, SCHED_FIFO) == 0 &&
               pthread_attr_setschedparam(&attributes, &parameters) == 0;
    }
    const pthread_attr_t* get() const { return &attributes; }

  private:
    pthread_attr_t attributes;
};

}  // namespace

struct UserThreadBase::Control {
    // What the new thread needs, so that it reads no member of the object that its owner may change.
    struct Launch {
        std::shared_ptr<Control> control;
        UserThreadBase* object;
        std::string name;
        int repeat;
    };

    // What is due on the way out of the thread, also when a stop unwinds it.
    class Ending {
      public:
        explicit Ending(Control& ofThread) : control(ofThread) {}
        ~Ending() { control.markEnded(); }
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;

      private:
        Control& control;
    };
    class Deinit {
      public:
        Deinit(const Control& ofThread, UserThreadBase& its) : control(ofThread), object(its) {}
        ~Deinit() {
            if (!control.abandoned) {
                object.deinitFunc();
            }
        }
        Deinit(const Deinit&) = delete;
        Deinit& operator=(const Deinit&) = delete;

      private:
        const Control& control;
        UserThreadBase& object;
    };

    static void* enter(void* launched);
    void run(UserThreadBase& object, int repeat) const;
    void markEnded();
    void joinEnded();
    void waitForEnd(int waitMs);

    std::mutex mutex;
    MonotonicCondition ended;
    std::atomic<bool> running{false};
    std::atomic<bool> stopAsked{false};
    std::atomic<bool> abandoned{false};  // the object is destroyed
    bool joinable = false;               // `thread` is one that nobody has joined
    unsigned long runs = 0;              // tells a run from the next
    pthread_t thread = {};
};

void* UserThreadBase::Control::enter(void* launched) {
    // Until the very end: the cancel of a stop must not act where the C library clears the thread away.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    const std::unique_ptr<Launch> launch(static_cast<Launch*>(launched));
    const Ending ending(*launch->control);
    pthread_setname_np(pthread_self(), launch->name.substr(0, kKernelNameLength).c_str());
    launch->control->run(*launch->object, launch->repeat);
    return nullptr;
}

// A stop that comes before the first round does not take it away: a job that was started is done.
void UserThreadBase::Control::run(UserThreadBase& object, int repeat) const {
    if (object.initFunc() < 0) {
        return;
    }
    const Deinit deinit(*this, object);
    int round = 0;
    do {
        if (object.threadFunc() < 0) {
            break;
        }
        if (repeat != kForEver) {
            ++round;
        }
    } while (round != repeat && !stopAsked);
}

// The last that the thread does with the lock: whoever sees `running` false under it can join at once.
void UserThreadBase::Control::markEnded() {
    const std::lock_guard<std::mutex> lock(mutex);
    running = false;
    ended.notifyAll();
}

// With the lock held, when the thread is not running.
void UserThreadBase::Control::joinEnded() {
    if (joinable) {
        pthread_join(thread, nullptr);
        joinable = false;
    }
}

// With the lock held. The run that is waited for may be followed by another one before the wait is over.
void UserThreadBase::Control::waitForEnd(int waitMs) {
    const unsigned long awaited = runs;
    const timespec deadline = deadlineIn(std::max(waitMs, 0));
    while (running && runs == awaited) {
        if (waitMs < 0) {
            ended.wait(mutex);
        } else if (!ended.waitUntil(mutex, deadline)) {
            return;
        }
    }
}

UserThreadBase::UserThreadBase()
    : name("baseThread"),
      stackSize(kDefaultStackSize),
      priority(kInheritedPriority),
      control(std::make_shared<Control>()) {}

UserThreadBase::~UserThreadBase() {
    const CancelHold hold;
    UserThreadBase::stop(kStopWaitMs);
    const std::lock_guard<std::mutex> lock(control->mutex);
    control->abandoned = true;
    if (control->joinable) {
        pthread_detach(control->thread);
        control->joinable = false;
    }
}

int UserThreadBase::initFunc() {
    return 0;
}

int UserThreadBase::deinitFunc() {
    return 0;
}

int UserThreadBase::threadFunc() {
    return 0;
}

void UserThreadBase::stop(int waitMs) {
    const CancelHold hold;
    const std::lock_guard<std::mutex> lock(control->mutex);
    control->stopAsked = true;
    if (!control->joinable || pthread_equal(control->thread, pthread_self()) != 0) {
        return;
    }
    if (control->running) {
        pthread_cancel(control->thread);
    }
    control->waitForEnd(waitMs);
    if (!control->running) {
        control->joinEnded();
    }
}

bool UserThreadBase::start(int repeat) {
    const CancelHold hold;
    if (repeat == 0 || repeat < kForEver) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(control->mutex);
    if (control->running) {
        return false;
    }
    control->joinEnded();

    ThreadAttributes attributes;
    if (!attributes.setUp(stackSize, priority)) {
        return false;
    }
    auto launch = std::make_unique<Control::Launch>(Control::Launch{control, this, name, repeat});
    control->stopAsked = false;
    control->running = true;
    if (pthread_create(&control->thread, attributes.get(), &Control::enter, launch.get()) != 0) {
        control->running = false;
        return false;
    }
    (void)launch.release();  // the new thread's own
    control->joinable = true;
    ++control->runs;
    return true;
}

bool UserThreadBase::isRunning() const {
    return control->running.load(std::memory_order_seq_cst);
}

void UserThreadBase::setName(std::string threadName) {
    name = std::move(threadName);
}

const std::string& UserThreadBase::getName() const {
    return name;
}

}  // namespace COMMON_YR
