// What happens when in a run: the services that it calls, the pauses that it makes, the lines that it logs.
// Any thread; nothing here is a cancellation point.
#pragma once

#include <string>
#include <vector>

namespace bench {

// Milliseconds of a clock that only goes forward, the same in all processes.
double nowMs();

struct Span {
    std::string name;
    double start;
    double end;
    int thread;
};

struct Line {
    std::string text;
    double time;
};

// Records from its construction to its destruction, also when the thread is cancelled in between.
class SpanTimer {
  public:
    explicit SpanTimer(std::string spanName) : name(std::move(spanName)), start(nowMs()) {}
    ~SpanTimer();
    SpanTimer(const SpanTimer&) = delete;
    SpanTimer& operator=(const SpanTimer&) = delete;

  private:
    std::string name;
    double start;
};

void recordLine(const std::string& text);

std::vector<Span> recordedSpans();
// The spans of that name, in their order.
std::vector<Span> recordedSpans(const std::string& name);
// When the first line with that text in it was logged; negative when there was none.
double timeOfLine(const std::string& text);
// Forgets everything.
void clearTimeline();

// Lets UpgradeMpu::upgrade sleep so long and fail, instead of writing: what a run does while it only waits.
void replaceWriteBySleep(int milliseconds);
// The processor time of the whole process during that sleep.
double processorMsOfSleep();

}  // namespace bench
