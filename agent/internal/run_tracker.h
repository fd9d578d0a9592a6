// How far a run is, from what the library logs and tells of it. Times are seconds since the call.
#pragma once

#include <vector>

#include "agent/run.h"

namespace kavro::agent {

// Puts together what is known of one run, in an order that makes sense to a reader: stage, state, progress and time
// only go forward, and the estimate only goes down.
class RunTracker {
  public:
    // expectedSeconds: of the stages, by UpgradeStage.
    explicit RunTracker(const StageSeconds& expectedSeconds = kUsualStageSeconds)
        : expected(expectedSeconds) {}

    // Takes a change of stage or state that the library logged. False when it tells nothing new: a repetition, one
    // that another thread has overtaken, or none of a run (the library is IDLE before and after it).
    bool change(int stage, int state, double seconds);

    // Takes the time, and the progress at it.
    void advance(int progress, double seconds);

    const RunStatus& status() const { return current; }
    // Every stage and state of the run so far, each once.
    const std::vector<StageChange>& stages() const { return stageChanges; }
    const std::vector<StateChange>& states() const { return stateChanges; }

  private:
    void setTime(double seconds);
    [[nodiscard]] std::optional<double> estimate(const StageChange& since, double now) const;

    StageSeconds expected;
    RunStatus current;
    std::vector<StageChange> stageChanges;
    std::vector<StateChange> stateChanges;
};

// What a user is told who asks in this stage to give a run up that goes on.
const char* tooLateToGiveUp(int stage);

}  // namespace kavro::agent
