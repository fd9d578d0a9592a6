// Watching a run from its start to its end: showing how far it is, and passing on the wish to give it up.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "agent/run.h"

namespace kavro::agent {

// The seconds since it was made, as a run counts them.
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

// What a run is measured by.
struct RunMeasure {
    StageSeconds stageSeconds = kUsualStageSeconds;  // that its stages are expected to take
    std::uint64_t contentBytes = 0;                  // of the package's components; 0 when unknown
};

// Calls run, which is one of the library's functions that make a run, on a thread of its own and shows what the library
// logs and tells of the run until it returns; other processes are told as well. giveUps: as in RunOptions, not empty; the observer is told when a request was
// too late.
RunOutcome watchRun(const std::function<int()>& run, RunObserver& observer,
                    const std::function<int()>& giveUps, const RunMeasure& measure, const Clock& clock);

}  // namespace kavro::agent
