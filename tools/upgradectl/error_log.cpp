#include "tools/upgradectl/error_log.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

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

bool beginsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

// Without "file:UNIT, func:FUNCTION line:NUMBER " in front and punctuation at the end.
std::string messageOf(std::string line) {
    const std::size_t number = line.find(" line:");
    if (beginsWith(line, "file:") && number != std::string::npos) {
        line.erase(0, std::min(line.find(' ', number + 1), line.size() - 1) + 1);
    }
    line.erase(line.find_last_not_of("\n ;") + 1);
    return line;
}

// "UNIT FUNCTION NUMBER error!!!": says where a step failed, not why.
bool isStepLine(const std::string& message) {
    static const std::string kEnd = " error!!!";
    return beginsWith(message, "upgrade/") && message.size() > kEnd.size() &&
           message.compare(message.size() - kEnd.size(), kEnd.size(), kEnd) == 0;
}

void keep(const std::string& line) {
    const std::string message = messageOf(line);
    if (isStepLine(message)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(lines().mutex);
    if (lines().texts.size() < kMostLines) {
        lines().texts.push_back(message);
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
