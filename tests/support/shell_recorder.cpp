#include "tests/support/shell_recorder.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "common/utility.h"

namespace fake {
namespace {

struct Recorder {
    std::mutex mutex;
    std::vector<std::string> commands;
    std::vector<std::string> failing;
};

// Never destroyed: the library under test may still run commands at the end of the process.
Recorder& recorder() {
    static Recorder* const object = new Recorder;
    return *object;
}

// Whether the command is to be run.
bool record(const std::string& command) {
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().commands.push_back(command);
    return std::none_of(recorder().failing.begin(), recorder().failing.end(), [&](const std::string& prefix) {
        return command.compare(0, prefix.size(), prefix) == 0;
    });
}

using RunSystem = int (*)(const char* format, ...);

// The definition behind this executable's own.
RunSystem realRunSystem() {
    void* const address = dlsym(RTLD_NEXT, "_ZN9COMMON_YR9runSystemEPKcz");
    if (address == nullptr) {
        std::fprintf(stderr, "shell_recorder: the utility library is not linked\n");
        std::abort();
    }
    return reinterpret_cast<RunSystem>(address);
}

}  // namespace

std::vector<std::string> commands() {
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    return recorder().commands;
}

void failCommands(const std::string& prefix) {
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().failing.push_back(prefix);
}

void resetCommands() {
    const std::lock_guard<std::mutex> lock(recorder().mutex);
    recorder().commands.clear();
    recorder().failing.clear();
}

}  // namespace fake

int COMMON_YR::runSystem(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string command(static_cast<unsigned long>(std::max(length, 0)), '\0');
    vsnprintf(command.data(), command.size() + 1, format, again);
    va_end(again);
    return fake::record(command) ? fake::realRunSystem()("%s", command.c_str()) : -1;
}
