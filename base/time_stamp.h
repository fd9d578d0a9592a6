// Times as texts.
#pragma once

#include <time.h>

#include <cstdio>
#include <string>

namespace kavro {

// Now, local: "2026-11-21 10:30:59.123".
inline std::string timeStamp() {
    constexpr long kNsPerMs = 1000000;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    const std::size_t length = strftime(text, sizeof text, "%F %T", &local);
    snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / kNsPerMs);
    return text;
}

// Now, in UTC: "2026-11-21T10:30:59Z".
inline std::string utcTimeStamp() {
    const time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    char text[64];
    return {text, strftime(text, sizeof text, "%FT%TZ", &utc)};
}

}  // namespace kavro
