#include "agent/internal/run_tracker.h"

#include <algorithm>
#include <numeric>

namespace kavro::agent {

namespace {

// Stage and state as numbers: each run passes them in rising order.
template <typename Change>
bool isBehind(int value, const std::vector<Change>& changes, int Change::*member) {
    return !changes.empty() && value <= changes.back().*member;
}

}  // namespace

bool RunTracker::change(int stage, int state, double seconds) {
    if (stage <= UPGRADE_STAGE_IDLE || stage >= UpgradeProc::kStageCount) {
        return false;
    }
    const bool newStage = !isBehind(stage, stageChanges, &StageChange::stage);
    const bool newState = !isBehind(state, stateChanges, &StateChange::state);
    if (newStage) {
        stageChanges.push_back({stage, seconds});
        current.stage = stage;
    }
    if (newState) {
        stateChanges.push_back({state, seconds});
        current.state = state;
    }
    setTime(seconds);
    return newStage || newState;
}

void RunTracker::advance(int progress, double seconds) {
    current.progress = std::max(current.progress, progress);
    setTime(seconds);
}

std::optional<double> RunTracker::estimate(const StageChange& since, double now) const {
    if (since.stage == UPGRADE_STAGE_DONE) {
        return 0;
    }
    const auto* const stage = expected.begin() + since.stage;
    const double leftInStage = *stage - (now - since.seconds);
    if (leftInStage < 0) {
        return std::nullopt;
    }
    return std::accumulate(stage + 1, expected.end(), leftInStage);
}

void RunTracker::setTime(double seconds) {
    current.seconds = std::max(current.seconds, seconds);
    current.remaining = stageChanges.empty() ? std::nullopt : estimate(stageChanges.back(), current.seconds);
}

const char* tooLateToGiveUp(int stage) {
    return stage >= UPGRADE_STAGE_BACKUP_PACKAGE
               ? "too late to give up: everything is flashed, the run is ending. Do not switch the device off"
               : "too late to give up: flashing has begun and goes on. Do not switch the device off";
}

}  // namespace kavro::agent
