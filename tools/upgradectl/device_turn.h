// The turn of this process to change the device.
#pragma once

#include <chrono>
#include <functional>

#include "agent/lock.h"
#include "tools/upgradectl/interrupts.h"

namespace upgradectl {

// Waits for it so long, unless an interrupt ends the waiting. Throws Failure: busy, given up.
kavro::agent::DeviceLock takeDevice(std::chrono::milliseconds patience, const Interrupts& interrupts);

// Takes the device for the length of work. An interrupt ends the waiting, and the process once work has begun.
void withDevice(std::chrono::milliseconds patience, const std::function<void()>& work);

}  // namespace upgradectl
