// glbGetCurTickMs.

#include <time.h>

#include "common/utility.h"

double glbGetCurTickMs() {
    constexpr double kMsPerSecond = 1e3;
    constexpr double kMsPerNanosecond = 1e-6;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * kMsPerSecond +
           static_cast<double>(now.tv_nsec) * kMsPerNanosecond;
}
