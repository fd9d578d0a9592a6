#include "tests/upgrade/short_second.h"

#include <time.h>

#include "common/export.h"

// Takes the place of the C library's.
extern "C" KAVRO_EXPORT unsigned sleep(unsigned seconds) {
    constexpr long kMillisecondNs = 1000000;
    constexpr long kSecondNs = 1000 * kMillisecondNs;
    const long nanoseconds = static_cast<long>(seconds * runtest::kShortSecondMs) * kMillisecondNs;
    const timespec pause{nanoseconds / kSecondNs, nanoseconds % kSecondNs};
    nanosleep(&pause, nullptr);
    return 0;
}
