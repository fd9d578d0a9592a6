// What a user sees of a run while it goes on.
#pragma once

#include <memory>
#include <string>

#include "tools/upgradectl/own_output.h"

namespace upgradectl {

struct RunStatus {
    int stage = 0;     // UpgradeStage
    int state = 0;     // UpgradeState
    int progress = 0;  // percent
    double seconds = 0;
};

// One line of a status for a terminal of that many columns, with a bar where there is room: it never wraps.
std::string terminalLine(const RunStatus& status, int columns);
// One line of a status for a log.
std::string plainLine(const RunStatus& status);

class RunView {
  public:
    virtual ~RunView() = default;
    // Called some times a second.
    virtual void show(const RunStatus& status) = 0;
    // A line of its own that stays.
    virtual void notice(const std::string& text) = 0;
    // Called after the last status.
    virtual void finish() {}
};

// On a terminal one line that is drawn again and again; elsewhere a line for each change of stage or state
// and for each tenth of the progress. output must outlive the view.
std::unique_ptr<RunView> makeRunView(const OwnOutput& output);

}  // namespace upgradectl
