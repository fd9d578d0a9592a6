#include "tools/upgradectl/error_log.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <regex>

#include "common/cancellation.h"
#include "common/utility.h"

namespace upgradectl {

namespace {

constexpr int kErrorLevel = 1;
constexpr std::size_t kMostLines = 4;
constexpr std::size_t kMostBytes = 1024;

struct Lines {
    std::mutex mutex;
    std::vector<std::string> texts;
};

// Never destroyed: the libraries still log when they are unloaded at the end of the process.
Lines& lines() {
    static Lines* const kLines = new Lines;
    return *kLines;
}

using PrintLog = void (*)(int, const char*, ...);

// The device's own printLog, which this program's stands in front of.
PrintLog devicesPrintLog() {
    static const auto kNext = reinterpret_cast<PrintLog>(dlsym(RTLD_NEXT, "_Z8printLogiPKcz"));
    return kNext;
}

void keep(const std::string& line) {
    static const std::regex kPlace("^file:.*?, func:.*? line:[0-9]+ ");
    static const std::regex kStepOnly("^\\S+ \\S+ [0-9]+ error!!!\\s*$");
    std::string text = std::regex_replace(line, kPlace, "");
    if (std::regex_match(text, kStepOnly)) {
        return;
    }
    text.erase(text.find_last_not_of("\n ;") + 1);
    const std::lock_guard<std::mutex> lock(lines().mutex);
    if (lines().texts.size() < kMostLines) {
        lines().texts.push_back(text);
    }
}

}  // namespace

std::vector<std::string> loggedErrors() {
    const std::lock_guard<std::mutex> lock(lines().mutex);
    return lines().texts;
}

}  // namespace upgradectl

// Called on every thread of the libraries, also on one that is being cancelled.
void printLog(int level, const char* format, ...) {
    const COMMON_YR::CancelHold hold;
    va_list arguments;
    va_start(arguments, format);
    char* buffer = nullptr;
    const int length = vasprintf(&buffer, format, arguments);
    va_end(arguments);
    const std::unique_ptr<char, decltype(&std::free)> owner(length < 0 ? nullptr : buffer, std::free);
    const std::string text = owner != nullptr ? owner.get() : format;

    if (upgradectl::devicesPrintLog() != nullptr) {
        upgradectl::devicesPrintLog()(level, "%s", text.c_str());
    }
    if (level == upgradectl::kErrorLevel) {
        upgradectl::keep(text.substr(0, upgradectl::kMostBytes));
    }
}
