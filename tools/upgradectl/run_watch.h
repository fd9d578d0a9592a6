// Watching a run from its start to its end: showing how far it is, and passing on the wish to give it up.
#pragma once

#include <functional>
#include <vector>

#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/run_view.h"

namespace upgradectl {

// The seconds since it was made.
class Clock {
  public:
    Clock();
    double seconds() const;
    // At a time of glbGetCurTickMs.
    double secondsAt(double ms) const;

  private:
    const double start;
};

struct RunOutcome {
    int result = -1;       // what the function returned
    bool givenUp = false;  // on request, and in time
    std::vector<StageChange> stages;
    std::vector<StateChange> states;

    // The last one that was reached; IDLE when no run began.
    int stage() const { return stages.empty() ? 0 : stages.back().stage; }
};

// Calls run, which is one of the library's functions that make a run, on a thread of its own and shows what the library
// logs and tells of the run until it returns. An interrupt asks to give the run up, and the view is told when that
// was too late; no interrupt ends the process.
RunOutcome watchRun(const std::function<int()>& run, RunView& view, const Interrupts& interrupts,
                    const Clock& clock);

}  // namespace upgradectl
