// printLog: to syslog, standard error and a file, as platform.json says.

#include <sys/syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>
#include <string_view>

#include "base/file_io.h"
#include "base/time_stamp.h"
#include "common/cancellation.h"
#include "common/log_listener.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/utility/device_log.h"
#include "platform/utility/format_text.h"
#include "platform/utility/log_file.h"

namespace {

std::atomic<COMMON_YR::LogListener> logListener{nullptr};

struct LevelRow {
    int level;
    int priority;
    const char* tag;
};

constexpr LevelRow kLevels[] = {
    {1, LOG_ERR, "error"},
    {2, LOG_WARNING, "warning"},
    {3, LOG_INFO, "info"},
};
constexpr LevelRow kOtherLevel = {0, LOG_DEBUG, "debug"};

// A datagram to the log daemon that is much longer than this is refused by the kernel. A longer text goes in
// pieces.
constexpr std::size_t kSyslogPiece = 64 << 10;

struct Targets {
    bool toSyslog = true;
    bool toStderr = false;
    kavro::LogFile file{{}, 0};
};

Targets readTargets() {
    try {
        const kavro::PlatformConfig config = kavro::readPlatformConfig();
        return {config.logToSyslog, config.logToStderr, {config.logFile, config.logFileBytes}};
    } catch (const std::exception&) {
        return {};
    }
}

const LevelRow& levelRow(int level) {
    for (const LevelRow& row : kLevels) {
        if (row.level == level) {
            return row;
        }
    }
    return kOtherLevel;
}

std::string_view withoutLineEnd(std::string_view text) {
    const std::size_t last = text.find_last_not_of('\n');
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

void logToSyslog(const LevelRow& level, std::string_view text) {
    do {
        const std::string_view piece = text.substr(0, kSyslogPiece);
        syslog(level.priority, "%.*s", static_cast<int>(piece.size()), piece.data());
        text.remove_prefix(piece.size());
    } while (!text.empty());
}

// A line break inside the text (a path may hold one) would look like the start of a line of its own.
std::string asOneLine(const LevelRow& level, std::string_view text) {
    std::string line = kavro::timeStamp() + " [" + level.tag + "] ";
    line.reserve(line.size() + text.size() + 1);
    for (const char character : text) {
        if (character == '\n') {
            line += "\\n";
        } else {
            line += character;
        }
    }
    return line += '\n';
}

// text ends with a null.
void tellListener(int level, std::string_view text) {
    if (const COMMON_YR::LogListener listener = logListener.load()) {
        listener(level, text.data());
    }
}

std::atomic<bool> isInUse{false};

void logText(int number, std::string_view text) {
    const LevelRow& level = levelRow(number);
    // Never destroyed: objects of other libraries still log in their destructors at the end of the process.
    static Targets& targets = *new Targets(readTargets());
    static std::mutex mutex;  // a long line takes more than one write, or piece
    const std::lock_guard<std::mutex> lock(mutex);
    if (targets.toSyslog) {
        logToSyslog(level, text);
    }
    const std::string line = asOneLine(level, text);
    if (targets.toStderr) {
        (void)kavro::writeFully(STDERR_FILENO, line.data(), line.size());
    }
    targets.file.append(line);
}

}  // namespace

void COMMON_YR::setLogListener(LogListener listener) {
    logListener = listener;
}

void kavro::logOfCommand(std::string_view line) {
    constexpr int kInformation = 3;
    if (isInUse.load(std::memory_order_relaxed)) {
        logText(kInformation, line);
    }
}

void printLog(int level, const char* format, ...) {
    const COMMON_YR::CancelHold hold;
    isInUse.store(true, std::memory_order_relaxed);
    const int keptErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    const kavro::FormattedText formatted = kavro::formatText(format, arguments);
    va_end(arguments);
    if (formatted.text != nullptr || format != nullptr) {
        // Better the format than nothing.
        const std::string_view text = formatted.text != nullptr ? formatted.view() : std::string_view(format);
        tellListener(level, text);
        logText(level, withoutLineEnd(text));
    }
    errno = keptErrno;
}
