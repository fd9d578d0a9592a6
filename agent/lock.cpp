#include "agent/lock.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>

#include "agent/internal/busy.h"
#include "upgrade/device_lock.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPause = 250ms;

// The kernel's lock belongs to the process; this tells its threads apart.
std::mutex mutex;
bool isHeldHere = false;

bool claimHere() {
    const std::lock_guard<std::mutex> guard(mutex);
    return !std::exchange(isHeldHere, true);
}

void releaseHere() {
    const std::lock_guard<std::mutex> guard(mutex);
    isHeldHere = false;
}

// Whether the library makes a run that this process has begun without us: the kernel's lock is the process's already.
bool isRunOfApplication() {
    UpgradeLockHolder holder;
    return UPGRADE_is_device_locked(&holder) && holder.pid == getpid() &&
           UpgradeProc::getInstance()->running.load(std::memory_order_relaxed);
}

// Whether it was taken, and how. Nothing when it is held.
enum class Attempt { kTaken, kTakenWithoutPlace, kHeld };

Attempt attempt(UpgradeLockHolder& holder) {
    if (!claimHere()) {
        holder.pid = getpid();
        return Attempt::kHeld;
    }
    if (isRunOfApplication()) {
        releaseHere();
        holder.pid = getpid();
        return Attempt::kHeld;
    }
    switch (UPGRADE_lock_device(&holder)) {
        case UPGRADE_LOCK_TAKEN:
            return Attempt::kTaken;
        case UPGRADE_LOCK_NO_PLACE:
            return Attempt::kTakenWithoutPlace;
        case UPGRADE_LOCK_HELD:
            break;
    }
    releaseHere();
    return Attempt::kHeld;
}

}  // namespace

Error busyError(const UpgradeLockHolder& holder) {
    std::string who = "another process";
    if (holder.pid == getpid()) {
        who = "another operation of this process";
    } else if (holder.pid > 0) {
        who = "process " + std::to_string(holder.pid) +
              (holder.command.empty() ? "" : " (" + holder.command + ")");
    }
    return {ErrorCode::kBusy,
            who + " is changing the device, nothing was done",
            "wait for its end, and try again",
            {},
            {}};
}

Result<DeviceLock> DeviceLock::take(const Patience& patience) {
    const Clock::time_point begin = Clock::now();
    for (;;) {
        UpgradeLockHolder holder;
        const Attempt result = attempt(holder);
        if (result != Attempt::kHeld) {
            return DeviceLock(result == Attempt::kTaken);
        }
        if (Clock::now() - begin >= patience.longest) {
            return busyError(holder);
        }
        if (patience.keepWaiting && !patience.keepWaiting()) {
            return Error{ErrorCode::kGivenUp,
                         "given up while another process was changing the device, nothing was done",
                         "start it again whenever you like",
                         {},
                         {}};
        }
        std::this_thread::sleep_for(kPause);
    }
}

DeviceLock::DeviceLock(DeviceLock&& other) noexcept
    : held(std::exchange(other.held, false)), heldInKernel(other.heldInKernel) {}

DeviceLock::~DeviceLock() {
    if (!held) {
        return;
    }
    if (heldInKernel) {
        UPGRADE_unlock_device();
    }
    releaseHere();
}

}  // namespace kavro::agent
