// The device's log, overheard: every line goes on to the real one.

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>

#include "common/cancellation.h"
#include "common/utility.h"
#include "tests/fault/give_up_moment.h"

void printLog(int level, const char* format, ...) {
    const COMMON_YR::CancelHold hold;
    static auto* const realLog = reinterpret_cast<decltype(&printLog)>(dlsym(RTLD_NEXT, "_Z8printLogiPKcz"));
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    realLog(level, "%s", line);
    soak::followLog(line);
}
