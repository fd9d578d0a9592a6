// A device that another process is changing.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "upgrade/device_lock.h"

namespace agent_test {

// Holds the device's lock in a process of its own, for this long or until it ends.
class HeldDevice {
  public:
    explicit HeldDevice(std::chrono::milliseconds time = std::chrono::minutes(1)) {
        int ready[2] = {};
        EXPECT_EQ(pipe(ready), 0);
        holder = fork();
        if (holder == 0) {
            const bool taken = UPGRADE_lock_device(nullptr) == UPGRADE_LOCK_TAKEN;
            (void)!write(ready[1], taken ? "y" : "n", 1);
            std::this_thread::sleep_for(time);
            _exit(0);
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
        close(ready[1]);
    }
    ~HeldDevice() { end(); }
    HeldDevice(const HeldDevice&) = delete;
    HeldDevice& operator=(const HeldDevice&) = delete;

    pid_t pid() const { return holder; }
    void end() {
        if (holder > 0) {
            kill(holder, SIGKILL);
            waitpid(holder, nullptr, 0);
        }
        holder = -1;
    }

  private:
    pid_t holder = -1;
};

}  // namespace agent_test
