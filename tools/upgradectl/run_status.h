// How far a run is, from what the library logs and tells of it. Times are seconds since the command began.
#pragma once

#include <optional>
#include <vector>

#include "tools/upgradectl/run_record.h"

namespace upgradectl {

struct RunStatus {
    int stage = 0;     // UpgradeStage
    int state = 0;     // UpgradeState
    int progress = 0;  // percent
    double seconds = 0;
    // Until the end, estimated. Nothing when there is no telling: no run has begun, or its stage takes longer than
    // it should.
    std::optional<double> remaining;
};

// Puts together what is known of one run, in an order that makes sense to a reader: stage, state, progress and time
// only go forward, and the estimate only goes down.
class RunTracker {
  public:
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

    RunStatus current;
    std::vector<StageChange> stageChanges;
    std::vector<StateChange> stateChanges;
};

// What a user is told who asks in this stage to give a run up that goes on.
const char* tooLateToGiveUp(int stage);

}  // namespace upgradectl
