// One operation at a time, in whatever process.
#pragma once

#include <chrono>
#include <functional>

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

// How long an operation waits for another one.
struct Patience {
    std::chrono::milliseconds longest{0};  // not at all, unless it is set
    // Asked four times a second while it waits; false ends the waiting. Empty for none.
    std::function<bool()> keepWaiting;
};

// Holds the device for one operation. It ends with the object, or with the process.
class KAVRO_EXPORT DeviceLock {
  public:
    // An error is: busy, with the process that has the device, when the patience is over; given_up when keepWaiting ended it.
    // Where the device has no place for a lock, the operation goes on without one.
    static Result<DeviceLock> take(const Patience& patience);

    ~DeviceLock();
    // Takes it over; the other one holds nothing then.
    DeviceLock(DeviceLock&& other) noexcept;
    DeviceLock& operator=(DeviceLock&& other) = delete;
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

  private:
    explicit DeviceLock(bool inKernel) : held(true), heldInKernel(inKernel) {}

    bool held = false;
    bool heldInKernel = false;
};

}  // namespace kavro::agent
