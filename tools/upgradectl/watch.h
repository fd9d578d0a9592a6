// Following the runs of another process: the command watch.
#pragma once

#include <string>

#include "tools/upgradectl/interrupts.h"

namespace upgradectl {

struct WatchRequest {
    std::string address;    // of the message node; empty: the one that platform.json names
    int lines = 0;          // end after so many; 0: never
    bool untilEnd = false;  // end with a run
};

// Writes a line to standard output for each change of the state, which the message node tells, and of the stage,
// which the device's log tells, until an interrupt comes. Publishers may come and go meanwhile. Throws Failure,
// also at the end of a run that failed when that was asked for.
void watch(const WatchRequest& request, const Interrupts& interrupts);

}  // namespace upgradectl
