#include "tests/upgrade/fake_tick.h"

#include <atomic>
#include <utility>

#include "common/utility.h"

namespace fake {
namespace {

constexpr double kStart = 1000.0;
std::atomic<double> tick{kStart};

std::function<void()>& tickHook() {
    static auto* const hook = new std::function<void()>;
    return *hook;
}

}  // namespace

void setTick(double milliseconds) {
    tick = milliseconds;
}

void onTick(std::function<void()> hook) {
    tickHook() = std::move(hook);
}

}  // namespace fake

double glbGetCurTickMs() {
    if (fake::tickHook()) {
        fake::tickHook()();
    }
    return fake::tick;
}
