// Whole runs: where their time goes, what they take of memory and processor, and how fast they are given up.
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <thread>

#include "bench/measurements.h"
#include "bench/sample.h"
#include "bench/timeline.h"
#include "upgrade/upgrade_api.h"

namespace bench {
namespace {

constexpr const char* kAccepted = "[stage INIT], [result NONE]";
constexpr const char* kFlashing = "[stage FLASHING_START]";
constexpr const char* kFlashed = "[stage BACKUP_PACKAGE]";
constexpr const char* kMcuJobEnd = "upgrade_mcu_local ---";
constexpr const char* kMpuJobEnd = "upgrade_mpu: ret is";

// The pauses that the one who waits for a run makes: before the threads are joined, and after a cancel.
constexpr const char* kPause = "sleep";
constexpr const char* kCancelPause = "usleep 500000";

void sleepMs(double milliseconds) {
    const auto nanoseconds = static_cast<long>(milliseconds * 1e6);
    const timespec pause = {nanoseconds / 1000000000, nanoseconds % 1000000000};
    nanosleep(&pause, nullptr);
}

void initialise() {
    std::string directory;
    if (UPGRADE_init(directory) != 0) {
        fail("UPGRADE_init");
    }
}

double requireLine(const std::string& text) {
    const double time = timeOfLine(text);
    if (time < 0) {
        fail("the log has no line with " + text);
    }
    return time;
}

bool isInside(const Span& span, double start, double end) {
    return span.start >= start && span.end <= end;
}

// What is subtracted from a run's time: its pauses, and of the flashing what passes until somebody looks.
double pausesOfInstall() {
    const double flashing = requireLine(kFlashing);
    const double flashed = requireLine(kFlashed);
    double pauses = flashed - std::max(requireLine(kMcuJobEnd), requireLine(kMpuJobEnd));
    for (const Span& span : recordedSpans(kPause)) {
        pauses += isInside(span, flashing, flashed) ? 0 : span.end - span.start;
    }
    return pauses;
}

bool isPause(const Span& span) {
    return span.name.compare(0, 5, "sleep") == 0 || span.name.compare(0, 6, "usleep") == 0;
}

// The services' shares; what is left is the run's own: records, messages, logs, and the start of its threads.
std::map<std::string, double> partsOf(double work) {
    std::map<std::string, double> parts;
    double rest = work;
    for (const Span& span : recordedSpans()) {
        if (!isPause(span)) {
            parts[span.name] += span.end - span.start;
            rest -= span.end - span.start;
        }
    }
    parts["rest"] = rest;
    return parts;
}

void install(const std::string& package) {
    clearTimeline();
    if (UPGRADE_main_proc_fun(package) != 0) {
        fail("UPGRADE_main_proc_fun");
    }
}

// The moments at which a run works before it flashes, in ms from its acceptance: its pauses are left out.
class WorkTime {
  public:
    WorkTime() : begin(requireLine(kAccepted)), end(requireLine(kFlashing)) {
        for (const Span& span : recordedSpans(kPause)) {
            if (isInside(span, begin, end)) {
                pauses.push_back(span);
                length -= span.end - span.start;
            }
        }
        length += end - begin;
    }

    // share: from 0 to 1.
    double moment(double share) const {
        double time = begin + share * length;
        for (const Span& pause : pauses) {
            if (time >= pause.start) {
                time += pause.end - pause.start;
            }
        }
        return time - begin;
    }

  private:
    double begin;
    double end;
    double length = 0;
    std::vector<Span> pauses;
};

// Asks for it so many ms after the run was accepted. Returns when.
double askToGiveUp(double afterMs) {
    while (timeOfLine(kAccepted) < 0) {
        sleepMs(0.1);
    }
    sleepMs(timeOfLine(kAccepted) + afterMs - nowMs());
    const double asked = nowMs();
    UPGRADE_set_giveup_upgrade_flag();
    return asked;
}

double pausesAfter(double asked) {
    double pauses = 0;
    for (const char* name : {kPause, kCancelPause}) {
        for (const Span& span : recordedSpans(name)) {
            // The worker's own pauses, which the cancel ends, are not waited for.
            const bool isWaitedFor = name == kCancelPause || span.thread == getpid();
            pauses += isWaitedFor && span.start >= asked ? span.end - span.start : 0;
        }
    }
    return pauses;
}

long peakResidentKib() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
    }
    fail("/proc/self/status");
}

}  // namespace

void measureInstall(const std::string& package) {
    initialise();
    const double start = nowMs();
    install(package);
    const double work = nowMs() - start - pausesOfInstall();
    report("install", work, partsOf(work));
}

void measureGiveUp(const std::string& package, int rounds) {
    initialise();
    install(package);
    const WorkTime workTime;
    for (int round = 0; round < rounds; ++round) {
        const double moment = workTime.moment((round + 0.5) / rounds);
        clearTimeline();
        double asked = 0;
        std::thread asking([&] { asked = askToGiveUp(moment); });
        const int result = UPGRADE_main_proc_fun(package);
        const double end = nowMs();
        asking.join();
        // A run that is faster than the first one may flash by then.
        if (result != 0 && timeOfLine(kFlashing) < 0) {
            report("give-up", end - asked - pausesAfter(asked), {{"moment", moment}});
        }
    }
}

void measureWaiting(const std::string& package) {
    constexpr int kWaitMs = 4000;
    initialise();
    clearTimeline();
    replaceWriteBySleep(kWaitMs);
    if (UPGRADE_main_proc_fun(package) == 0 || timeOfLine(kFlashing) < 0) {
        fail("a run that waits");
    }
    report("waiting", processorMsOfSleep() / kWaitMs * 100);
}

void measureMemory(const std::string& package) {
    initialise();
    install(package);
    report("memory", static_cast<double>(peakResidentKib()));
}

}  // namespace bench
