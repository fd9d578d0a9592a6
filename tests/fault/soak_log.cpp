// The device's log, overheard: every line goes on to the real one.

#include "tests/fault/soak_log.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "common/cancellation.h"
#include "common/utility.h"
#include "tests/fault/give_up_moment.h"

namespace soak {
namespace {

constexpr int kError = 1;

// Of a fixed size, for what grows in here would look like a leak.
std::mutex mutex;
char errors[2000];

void keepError(const char* line) {
    const std::lock_guard<std::mutex> lock(mutex);
    const std::size_t used = std::strlen(errors);
    std::snprintf(errors + used, sizeof(errors) - used, "%s", line);
}

}  // namespace

void forgetErrors() {
    const std::lock_guard<std::mutex> lock(mutex);
    errors[0] = '\0';
}

std::string loggedErrors() {
    const std::lock_guard<std::mutex> lock(mutex);
    return errors;
}

}  // namespace soak

void printLog(int level, const char* format, ...) {
    const COMMON_YR::CancelHold hold;
    static auto* const realLog = reinterpret_cast<decltype(&printLog)>(dlsym(RTLD_NEXT, "_Z8printLogiPKcz"));
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    realLog(level, "%s", line);
    if (level == soak::kError) {
        soak::keepError(line);
    }
    soak::followLog(line);
}
