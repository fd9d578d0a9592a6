#include "bench/timeline.h"

#include <time.h>
#include <unistd.h>

#include <mutex>
#include <utility>

namespace bench {
namespace {

struct Timeline {
    std::mutex mutex;
    std::vector<Span> spans;
    std::vector<Line> lines;
};

// Never destroyed: the libraries log until the process ends.
Timeline& timeline() {
    static Timeline& object = *new Timeline;
    return object;
}

}  // namespace

double nowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

SpanTimer::~SpanTimer() {
    const double end = nowMs();
    const std::lock_guard<std::mutex> lock(timeline().mutex);
    timeline().spans.push_back({std::move(name), start, end, gettid()});
}

void recordLine(const std::string& text) {
    const double time = nowMs();
    const std::lock_guard<std::mutex> lock(timeline().mutex);
    timeline().lines.push_back({text, time});
}

std::vector<Span> recordedSpans() {
    const std::lock_guard<std::mutex> lock(timeline().mutex);
    return timeline().spans;
}

std::vector<Span> recordedSpans(const std::string& name) {
    std::vector<Span> found;
    for (Span& span : recordedSpans()) {
        if (span.name == name) {
            found.push_back(std::move(span));
        }
    }
    return found;
}

double timeOfLine(const std::string& text) {
    const std::lock_guard<std::mutex> lock(timeline().mutex);
    for (const Line& line : timeline().lines) {
        if (line.text.find(text) != std::string::npos) {
            return line.time;
        }
    }
    return -1;
}

void clearTimeline() {
    const std::lock_guard<std::mutex> lock(timeline().mutex);
    timeline().spans.clear();
    timeline().lines.clear();
}

}  // namespace bench
