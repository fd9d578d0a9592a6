// What a user, or a program, sees of a run while it goes on.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/own_output.h"
#include "tools/upgradectl/run_status.h"

namespace upgradectl {

// A line on a terminal that is drawn again and again; lines of text; lines of JSON.
enum class OutputForm { kTerminal, kPlain, kJson };

struct RunBegin {
    std::string command;  // "install" or "rollback"
    std::string package;
    std::string packageVersion;  // as "V01.105.008.003"; empty when it is not known
    std::string currentVersion;
    double seconds = 0;
};

struct RunEnd {
    ExitCode code = ExitCode::kOther;
    std::string message;              // one sentence without a full stop
    std::string next;                 // what to do next
    std::vector<std::string> device;  // the device's own words on a failure
    double seconds = 0;
    std::vector<kavro::Error> further = {};  // what was found along with a failure
};

// One line of a status for a terminal of that many columns; it never wraps. What has no room is left out: first the
// bar, then the time that has passed, the time that is left, and the stage.
std::string terminalLine(const RunStatus& status, int columns);
// One line of a status for a log.
std::string plainLine(const RunStatus& status);

// The calls come in this order, except that a run which was refused before it began has an end only. One thread.
class RunView {
  public:
    virtual ~RunView() = default;
    virtual void begin(const RunBegin& run) { (void)run; }
    // Called with each change of stage or state, and some times a second.
    virtual void show(const RunStatus& status) = 0;
    // A line of its own that stays.
    virtual void notice(const std::string& text, double seconds) = 0;
    virtual void end(const RunEnd& end) = 0;
};

// output must outlive the view. Everything is written at once.
std::unique_ptr<RunView> makeRunView(const OwnOutput& output, OutputForm form);

}  // namespace upgradectl
