#include "tests/platform/captured_log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

#include "common/utility.h"

namespace testsupport {
namespace {

struct Line {
    int level;
    std::string text;
};

// Never destroyed: the libraries may log until the end of the process.
struct Capture {
    std::mutex mutex;
    std::vector<Line> lines;

    static Capture& get() {
        static Capture* const capture = new Capture;
        return *capture;
    }

    std::string dump() const {
        std::string text;
        for (const Line& line : lines) {
            text += "[" + std::to_string(line.level) + "] " + line.text;
        }
        return text.empty() ? "nothing was logged" : text;
    }
};

}  // namespace

testing::AssertionResult loggedWith(int level, std::initializer_list<std::string> parts) {
    Capture& capture = Capture::get();
    const std::lock_guard<std::mutex> lock(capture.mutex);
    const bool found = std::any_of(capture.lines.begin(), capture.lines.end(), [&](const Line& line) {
        return line.level == level && std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
                   return line.text.find(part) != std::string::npos;
               });
    });
    return found ? testing::AssertionSuccess() : testing::AssertionFailure() << capture.dump();
}

testing::AssertionResult nothingCaptured() {
    Capture& capture = Capture::get();
    const std::lock_guard<std::mutex> lock(capture.mutex);
    return capture.lines.empty() ? testing::AssertionSuccess()
                                 : testing::AssertionFailure() << capture.dump();
}

void clearCapturedLog() {
    Capture& capture = Capture::get();
    const std::lock_guard<std::mutex> lock(capture.mutex);
    capture.lines.clear();
}

}  // namespace testsupport

void printLog(int level, const char* format, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    testsupport::Capture& capture = testsupport::Capture::get();
    const std::lock_guard<std::mutex> lock(capture.mutex);
    capture.lines.push_back({level, text.data()});
}
