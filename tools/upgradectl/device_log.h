// What the device's libraries log while a command runs. This program's printLog stands in front of the device's
// own, which still gets every line. All functions may be called from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace upgradectl {

// Times are milliseconds of glbGetCurTickMs. They do not decrease from line to line.
struct DeviceLine {
    double ms = 0;
    int level = 0;
    std::string thread;  // its name
    std::string text;    // without line break
};

// The lines since the program began, as far as they were kept: a log that grows without end is cut off, since
// the beginning of a trouble tells more than its repetitions.
struct DeviceLog {
    std::vector<DeviceLine> lines;
    std::size_t dropped = 0;
};
DeviceLog loggedLines();

// The first errors, each once, for the text of a failure: only their message, and without those lines that
// repeat in which step another one was logged.
std::vector<std::string> loggedErrors();

// The library logs stage and state of a run whenever one of them changes. Two threads of a run may do so at
// once: then a line can be older than the one before it.
struct LoggedChange {
    double ms = 0;
    int stage = 0;  // UpgradeStage
    int state = 0;  // UpgradeState
};

// Those since the last call, or since the program began. None is ever dropped.
std::vector<LoggedChange> takeLoggedChanges();

}  // namespace upgradectl
