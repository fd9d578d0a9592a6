// Gives a run up at a drawn moment, told by the run's own log: every change of stage and state is a line there.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace soak {

// The changes of a run in their order. From one to the next the run can be given up, up to kFlashing.
enum Change : int {
    kNoChange = -1,
    kReset,      // IDLE
    kAccepted,   // INIT: the work area is made, the package copied
    kCopied,     // INIT, START: a pause
    kGoingOn,    // INIT, INPROGRESS_MPU
    kStarted,    // START: the package is checked and unpacked
    kProcessed,  // PROC_PKG_DONE: the signatures are verified
    kVerified,   // VERIFY_PKG_DONE
    kDecided,    // SET_FLAG_DONE: the last pause
    kFlashing,   // FLASHING_START: too late
    kChanges,
};

enum class How : int {
    kInside,   // while the change is logged, on the thread that makes it
    kAfter,    // up to a millisecond later
    kBefore,   // up to a millisecond before the next one, as it came in earlier runs
    kBetween,  // anywhere up to the next one
};

struct Moment {
    Change change = kNoChange;
    How how = How::kInside;
    double part = 0;  // of the millisecond, or of the time to the next change: 0 to 1

    std::string text() const;
};

Moment drawMoment(std::mt19937_64& generator);

// How long each change took to come in the runs before; fed by every run.
class Pace {
  public:
    // Seconds from a change to the next.
    double after(Change change) const { return mean[change]; }
    void learn(Change change, double seconds);

  private:
    double mean[kChanges] = {};
    unsigned long known[kChanges] = {};
};

// For the length of a run: follows it and gives it up at the moment; kNoChange for never. One at a time.
class GiverUp {
  public:
    GiverUp(const Moment& wanted, Pace& pace);
    ~GiverUp();
    GiverUp(const GiverUp&) = delete;
    GiverUp& operator=(const GiverUp&) = delete;

    // The stage right before the request; -1 when the moment did not come.
    int stageThen() const { return stage; }

  private:
    friend void followLog(const char* line);
    void follow(Change change);
    void giveUp();
    double delay() const;
    void work();

    const Moment moment;
    Pace& learned;
    std::atomic<int> stage{-1};
    std::mutex mutex;
    std::condition_variable woken;
    bool hasCome = false;
    bool isOver = false;
    Change latest = kNoChange;
    double latestAt = 0;
    std::thread worker;
};

// To be called with every line of the log.
void followLog(const char* line);

}  // namespace soak
