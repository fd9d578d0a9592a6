#include "agent/internal/run_watch.h"

#include <unistd.h>

#include <atomic>
#include <thread>

#include "agent/internal/byte_progress.h"
#include "agent/internal/device_log.h"
#include "agent/internal/published_run.h"
#include "agent/internal/run_tracker.h"
#include "common/utility.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

constexpr useconds_t kPollMicroseconds = 50000;
constexpr double kMsPerSecond = 1000.0;

// The answers of UPGRADE_get_giveup_sts.
enum class GiveUp : int { kNothing = 0, kInTime = 1, kTooLate = 2 };

GiveUp giveUpAnswer() {
    return static_cast<GiveUp>(UPGRADE_get_giveup_sts());
}

// Shows a run: its changes as they were logged, and what passes between them.
class Watcher {
  public:
    Watcher(RunObserver& target, const RunMeasure& measure, const Clock& source)
        : observer(target), clock(source), tracker(measure.stageSeconds), bytes(measure.contentBytes) {}

    void look() {
        const double now = clock.seconds();
        for (const LoggedChange& change : takeLoggedChanges()) {
            hearsLog = true;
            take(change.stage, change.state, clock.secondsAt(change.ms));
        }
        if (!hearsLog && (hasBegun() || UpgradeProc::getInstance()->running)) {
            take(UPGRADE_get_stage(), UpgradeProc::getInstance()->state, now);
        }
        if (hasBegun()) {
            advance(now);
            observer.show(tracker.status());
        }
    }

    void notice(const std::string& text) {
        look();
        observer.notice(text, clock.seconds());
    }

    bool hasBegun() const { return !tracker.stages().empty(); }
    const RunTracker& run() const { return tracker; }

  private:
    void take(int stage, int state, double seconds) {
        if (tracker.change(stage, state, seconds)) {
            advance(seconds);
            observer.show(tracker.status());
        }
    }

    void advance(double seconds) {
        tracker.advance(bytes.percent(tracker.status().stage, tracker.status().state), seconds);
        publisher.publish(tracker.status());
    }

    RunObserver& observer;
    const Clock& clock;
    RunTracker tracker;
    const ByteProgress bytes;
    RunPublisher publisher;
    bool hearsLog = false;  // a board that does not tell its log is asked some times a second instead
};

// Turns requests of the caller's into a request to give the run up, and tells what became of it.
class GiveUpRequest {
  public:
    GiveUpRequest(const std::function<int()>& source, Watcher& target) : giveUps(source), watcher(target) {}

    // Does nothing before a run has begun: a request would be forgotten at its begin.
    void poll() {
        if (giveUps() == answered || !watcher.hasBegun()) {
            return;
        }
        if (!announced) {
            watcher.notice("giving up...");
            announced = true;
        }
        UPGRADE_set_giveup_upgrade_flag();
        if (giveUpAnswer() == GiveUp::kTooLate) {
            tellTooLate();
        }
    }

    // After the run. Whether it was given up.
    bool finish(int result) {
        if (giveUps() == 0) {
            return false;
        }
        const bool inTime = result < 0 && announced && giveUpAnswer() == GiveUp::kInTime;
        if (!inTime && !toldTooLate) {
            watcher.notice("too late to give up: the run was over");
        }
        return inTime;
    }

  private:
    // In time: the failure that the run ends with says so.
    void tellTooLate() {
        watcher.notice(tooLateToGiveUp(watcher.run().status().stage));
        answered = giveUps();
        toldTooLate = true;
    }

    const std::function<int()>& giveUps;
    Watcher& watcher;
    int answered = 0;
    bool announced = false;
    bool toldTooLate = false;
};

}  // namespace

Clock::Clock() : start(glbGetCurTickMs()) {}

double Clock::seconds() const {
    return secondsAt(glbGetCurTickMs());
}

double Clock::secondsAt(double ms) const {
    return (ms - start) / kMsPerSecond;
}

RunOutcome watchRun(const std::function<int()>& run, RunObserver& observer,
                    const std::function<int()>& giveUps, const RunMeasure& measure, const Clock& clock) {
    RunOutcome outcome;
    std::atomic<bool> over{false};
    Watcher watcher(observer, measure, clock);
    GiveUpRequest request(giveUps, watcher);
    std::thread runner([&] {
        outcome.result = run();
        over = true;
    });
    while (!over) {
        watcher.look();
        request.poll();
        usleep(kPollMicroseconds);
    }
    runner.join();
    watcher.look();
    outcome.givenUp = request.finish(outcome.result);
    outcome.stages = watcher.run().stages();
    outcome.states = watcher.run().states();
    return outcome;
}

}  // namespace kavro::agent
