#include "agent/internal/device_log.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <optional>
#include <utility>

#include "agent/device_log.h"
#include "base/run_line.h"
#include "common/board.h"
#include "common/cancellation.h"
#include "common/log_listener.h"
#include "common/utility.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

constexpr int kErrorLevel = 1;
constexpr std::size_t kMostErrors = 4;
constexpr std::size_t kMostLines = 2000;
constexpr std::size_t kMostBytes = 1024;  // of a line

struct Memory {
    std::mutex mutex;
    DeviceLog log;
    std::vector<std::string> errors;
    std::vector<LoggedChange> changes;
};

// Never destroyed: the libraries still log when they are unloaded at the end of the process.
Memory& memory() {
    static Memory* const kMemory = new Memory;
    return *kMemory;
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

std::string threadName() {
    constexpr std::size_t kLongestName = 16;
    std::array<char, kLongestName> name{};
    return pthread_getname_np(pthread_self(), name.data(), name.size()) == 0 ? name.data() : "";
}

std::optional<LoggedChange> changeIn(const std::string& text) {
    const std::optional<RunLine> line = runLineIn(text);
    LoggedChange change;
    if (!line || !COMMON_YR::getStringKey(line->stage.c_str(), change.stage, UpgradeProc::stageNames) ||
        !COMMON_YR::getStringKey(line->state.c_str(), change.state, UpgradeProc::stateNames)) {
        return std::nullopt;
    }
    return change;
}

void keepError(std::vector<std::string>& errors, const std::string& line) {
    const std::string message = messageOf(line);
    const bool isKept = std::find(errors.begin(), errors.end(), message) != errors.end();
    if (!isStepLine(message) && !isKept && errors.size() < kMostErrors) {
        errors.push_back(message);
    }
}

void keep(int level, const char* logged) {
    const COMMON_YR::CancelHold hold;
    const std::string text = logged;
    DeviceLine line = {0, level, threadName(), text.substr(0, kMostBytes)};
    line.text.erase(line.text.find_last_not_of('\n') + 1);
    std::optional<LoggedChange> change = changeIn(line.text);

    Memory& kept = memory();
    const std::lock_guard<std::mutex> lock(kept.mutex);
    line.ms = glbGetCurTickMs();
    if (change) {
        change->ms = line.ms;
        kept.changes.push_back(*change);
    }
    if (level == kErrorLevel) {
        keepError(kept.errors, line.text);
    }
    if (kept.log.lines.size() < kMostLines) {
        kept.log.lines.push_back(std::move(line));
    } else {
        ++kept.log.dropped;
    }
}

void listenBy(COMMON_YR::LogListener listener) {
    if (COMMON_YR::setLogListener != nullptr) {
        COMMON_YR::setLogListener(listener);
    }
}

// The listener's code goes with this library.
struct Listening {
    ~Listening() { listenBy(nullptr); }
} listening;

}  // namespace

void keepDeviceLog() {
    const COMMON_YR::CancelHold hold;
    {
        const std::lock_guard<std::mutex> lock(memory().mutex);
        memory().log = {};
        memory().errors.clear();
        memory().changes.clear();
    }
    listenBy(keep);
}

DeviceLog loggedLines() {
    const std::lock_guard<std::mutex> lock(memory().mutex);
    return memory().log;
}

std::vector<std::string> loggedErrors() {
    const std::lock_guard<std::mutex> lock(memory().mutex);
    return memory().errors;
}

std::string deviceLogFile() {
    return COMMON_YR::boardLogFile == nullptr ? std::string() : COMMON_YR::boardLogFile();
}

std::vector<LoggedChange> takeLoggedChanges() {
    const std::lock_guard<std::mutex> lock(memory().mutex);
    return std::exchange(memory().changes, {});
}

}  // namespace kavro::agent
