// All that was kept of what the device's libraries log. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kavro::agent {

// Times are milliseconds of glbGetCurTickMs. They do not decrease from line to line.
struct DeviceLine {
    double ms = 0;
    int level = 0;
    std::string thread;  // its name
    std::string text;    // without line break
};

// The lines since keepDeviceLog(), as far as they were kept: a log that grows without end is cut off, since
// the beginning of a trouble tells more than its repetitions.
struct DeviceLog {
    std::vector<DeviceLine> lines;
    std::size_t dropped = 0;
};
DeviceLog loggedLines();

// The library logs stage and state of a run whenever one of them changes. Two threads of a run may do so at
// once: then a line can be older than the one before it.
struct LoggedChange {
    double ms = 0;
    int stage = 0;  // UpgradeStage
    int state = 0;  // UpgradeState
};

// Those since the last call, or since keepDeviceLog(). None is ever dropped.
std::vector<LoggedChange> takeLoggedChanges();

}  // namespace kavro::agent
