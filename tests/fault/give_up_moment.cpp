#include "tests/fault/give_up_moment.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "upgrade/upgrade_api.h"

namespace soak {
namespace {

constexpr const char* kMark = "&&&&& upgrade [stage ";

struct ChangeRow {
    Change change;
    const char* name;
    const char* line;  // behind the mark
};

constexpr ChangeRow kRows[] = {
    {kReset, "IDLE", "IDLE], [result NONE"},
    {kAccepted, "INIT", "INIT], [result NONE"},
    {kCopied, "INIT/START", "INIT], [result START"},
    {kGoingOn, "INIT/INPROGRESS", "INIT], [result INPROGRESS_MPU"},
    {kStarted, "START", "START], "},
    {kProcessed, "PROC_PKG_DONE", "PROC_PKG_DONE], "},
    {kVerified, "VERIFY_PKG_DONE", "VERIFY_PKG_DONE], "},
    {kDecided, "SET_FLAG_DONE", "SET_FLAG_DONE], "},
    {kFlashing, "FLASHING_START", "FLASHING_START], [result INPROGRESS_MPU"},
};

constexpr double kMillisecond = 0.001;

std::atomic<GiverUp*> follower{nullptr};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string Moment::text() const {
    static constexpr const char* kNames[] = {"in", "after", "before the one after", "between this and next:"};
    if (change == kNoChange) {
        return "never";
    }
    return std::string(kNames[static_cast<int>(how)]) + " " + kRows[change].name + " " +
           std::to_string(part).substr(0, 5);
}

// Three of eight anywhere in a stage, the others around a change. Too late is as good a moment as another, but longer.
Moment drawMoment(std::mt19937_64& generator) {
    constexpr How kHows[] = {How::kInside, How::kAfter,   How::kAfter,   How::kBefore,
                             How::kBefore, How::kBetween, How::kBetween, How::kBetween};
    Moment moment;
    moment.how = kHows[generator() % std::size(kHows)];
    moment.change =
        static_cast<Change>(kAccepted + static_cast<int>(generator() % (kDecided - kAccepted + 1)));
    if (moment.how == How::kInside && generator() % 8 == 0) {
        moment.change = kFlashing;
    }
    moment.part = std::uniform_real_distribution<double>(0, 1)(generator);
    return moment;
}

void Pace::learn(Change change, double seconds) {
    // The last runs count more, for the machine may be busier now than at first.
    constexpr unsigned long kMemory = 8;
    known[change] = std::min(known[change] + 1, kMemory);
    mean[change] += (seconds - mean[change]) / static_cast<double>(known[change]);
}

GiverUp::GiverUp(const Moment& wanted, Pace& pace) : moment(wanted), learned(pace) {
    worker = std::thread([this] { work(); });
    follower = this;
}

GiverUp::~GiverUp() {
    follower = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isOver = true;
    }
    woken.notify_all();
    worker.join();
}

void GiverUp::giveUp() {
    stage = UPGRADE_get_stage();
    UPGRADE_set_giveup_upgrade_flag();
}

void GiverUp::follow(Change change) {
    const double at = now();
    bool isInside = false;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        // A change that was told already comes again at the end of a run that was given up.
        if (isOver || change <= latest) {
            return;
        }
        if (change == latest + 1 && latest != kNoChange) {
            learned.learn(latest, at - latestAt);
        }
        latest = change;
        latestAt = at;
        hasCome = hasCome || change == moment.change;
        isInside = change == moment.change && moment.how == How::kInside;
    }
    if (isInside) {
        giveUp();
        // The request is acted upon every millisecond: it meets the thread while it is still in here.
        usleep(20000);
        return;
    }
    woken.notify_all();
}

double GiverUp::delay() const {
    switch (moment.how) {
        case How::kAfter:
            return moment.part * kMillisecond;
        case How::kBefore:
            return std::max(0.0, learned.after(moment.change) - moment.part * kMillisecond);
        default:
            return moment.part * learned.after(moment.change);
    }
}

void GiverUp::work() {
    constexpr double kMicrosecond = 0.000001;
    useconds_t pause = 0;
    {
        std::unique_lock<std::mutex> lock(mutex);
        woken.wait(lock, [this] { return hasCome || isOver; });
        if (!hasCome || moment.how == How::kInside) {
            return;
        }
        pause = static_cast<useconds_t>(delay() / kMicrosecond);
    }
    usleep(pause);
    giveUp();
}

void followLog(const char* line) {
    if (std::strncmp(line, kMark, std::strlen(kMark)) != 0) {
        return;
    }
    GiverUp* const giver = follower;
    const char* const change = line + std::strlen(kMark);
    for (const ChangeRow& row : kRows) {
        if (giver != nullptr && std::strncmp(change, row.line, std::strlen(row.line)) == 0) {
            giver->follow(row.change);
        }
    }
}

}  // namespace soak
