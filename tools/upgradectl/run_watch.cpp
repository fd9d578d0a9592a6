#include "tools/upgradectl/run_watch.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "common/utility.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

constexpr useconds_t kPollMicroseconds = 100000;
constexpr double kMsPerSecond = 1000.0;

// Turns interrupts into a request to give the run up, and tells what became of it.
class GiveUpRequest {
  public:
    GiveUpRequest(const Interrupts& source, RunView& target) : interrupts(source), view(target) {}

    // stage: of the run; none has begun while it is IDLE, and a request made then would be forgotten at its
    // begin.
    void poll(int stage) {
        if (interrupts.count() == answered || stage == UPGRADE_STAGE_IDLE) {
            return;
        }
        if (!announced) {
            view.notice("giving up...");
            announced = true;
        }
        UPGRADE_set_giveup_upgrade_flag();
        answer(static_cast<GiveUp>(UPGRADE_get_giveup_sts()));
    }

  private:
    void answer(GiveUp status) {
        if (status == GiveUp::kNothing) {
            return;
        }
        // In time: the failure that the run ends with says so.
        if (status == GiveUp::kTooLate) {
            view.notice("too late to give up: flashing has begun and goes on. Do not switch the device off");
        }
        answered = interrupts.count();
    }

    const Interrupts& interrupts;
    RunView& view;
    int answered = 0;
    bool announced = false;
};

RunStatus currentStatus(double startTick) {
    return {UPGRADE_get_stage(), UpgradeProc::getInstance()->state, UPGRADE_get_progress(),
            (glbGetCurTickMs() - startTick) / kMsPerSecond};
}

}  // namespace

RunOutcome watchRun(const std::function<int()>& run, RunView& view, const Interrupts& interrupts) {
    RunOutcome outcome;
    std::atomic<bool> over{false};
    GiveUpRequest request(interrupts, view);
    const double start = glbGetCurTickMs();
    std::thread runner([&] {
        outcome.result = run();
        over = true;
    });
    while (!over) {
        const RunStatus status = currentStatus(start);
        outcome.highestStage = std::max(outcome.highestStage, status.stage);
        if (status.stage != UPGRADE_STAGE_IDLE) {
            view.show(status);
        }
        request.poll(status.stage);
        usleep(kPollMicroseconds);
    }
    runner.join();

    // A failed run is reset to IDLE before it returns; a good one stays at its last stage.
    if (UPGRADE_get_stage() != UPGRADE_STAGE_IDLE) {
        outcome.highestStage = UPGRADE_get_stage();
        view.show(currentStatus(start));
    }
    view.finish();
    if (outcome.result < 0) {
        outcome.giveUp = static_cast<GiveUp>(UPGRADE_get_giveup_sts());
    }
    return outcome;
}

}  // namespace upgradectl
