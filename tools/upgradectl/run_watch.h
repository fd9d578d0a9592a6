// Watching a run from its start to its end: showing how far it is, and passing on the wish to give it up.
#pragma once

#include <functional>

#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/run_view.h"

namespace upgradectl {

// The answers of UPGRADE_get_giveup_sts.
enum class GiveUp : int { kNothing = 0, kInTime = 1, kTooLate = 2 };

struct RunOutcome {
    int result = -1;       // what the function returned
    int highestStage = 0;  // UpgradeStage; after a failure the library itself has forgotten it
    // After a failure: kTooLate also for a run that nobody wanted to give up, but whose flashing had begun.
    GiveUp giveUp = GiveUp::kNothing;
};

// Calls run, which is one of the library's functions that make a run, on a thread of its own and shows the
// run's status until it returns. An interrupt asks to give the run up and tells when that was too late; no
// interrupt ends the process.
RunOutcome watchRun(const std::function<int()>& run, RunView& view, const Interrupts& interrupts);

}  // namespace upgradectl
