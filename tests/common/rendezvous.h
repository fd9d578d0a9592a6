// How tests meet the threads of the code under test.
#pragma once

#include <condition_variable>
#include <ctime>
#include <mutex>

namespace testsupport {

// A gate that threads wait at until it is opened, for good.
class Gate {
  public:
    void open() {
        const std::lock_guard<std::mutex> lock(mutex);
        isOpen = true;
        changed.notify_all();
    }
    void pass() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return isOpen; });
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    bool isOpen = false;
};

// Waits until the condition holds; false when it did not within half a minute.
template <typename Condition>
bool eventually(Condition condition) {
    constexpr int kSteps = 15000;
    constexpr timespec kStep = {0, 2000000};
    for (int step = 0; step < kSteps; ++step) {
        if (condition()) {
            return true;
        }
        // Not usleep: tests count those of the code under test.
        nanosleep(&kStep, nullptr);
    }
    return condition();
}

}  // namespace testsupport
