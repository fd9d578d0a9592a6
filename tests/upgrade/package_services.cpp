#include "tests/upgrade/package_services.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/utility.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"

namespace package_services {
namespace {

struct Faults {
    std::mutex mutex;
    std::optional<long> readResult;
    std::string lyingMkdir;
    unsigned mkdirMode = 0;
};

// Never destroyed: the library under test may call until the very end of the process.
Faults& faults() {
    static auto* const object = new Faults;
    return *object;
}

// The next definition of a symbol behind the one in this executable.
template <typename Function>
Function realFunction(const char* symbol) {
    auto* function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
    if (function == nullptr) {
        fprintf(stderr, "no other definition of %s\n", symbol);
        abort();
    }
    return function;
}

void replaceOnce(std::string& text, const std::string& from, const std::string& to) {
    const unsigned long at = text.find(from);
    if (at != std::string::npos) {
        text.replace(at, from.size(), to);
    }
}

std::string withoutLineNumber(std::string text) {
    const std::string mark = " line:";
    const unsigned long at = text.find(mark);
    if (text.compare(0, 5, "file:") != 0 || at == std::string::npos) {
        return text;
    }
    const unsigned long begin = at + mark.size();
    const unsigned long end = text.find_first_not_of("0123456789", begin);
    if (end == begin || end == std::string::npos) {
        return text;
    }
    const std::string number = text.substr(begin, end - begin);
    text.replace(begin, number.size(), "#");
    replaceOnce(text, " " + number + " error!!!\n", " # error!!!\n");
    return text;
}

}  // namespace

std::vector<std::string> logShape() {
    std::vector<std::string> shape;
    for (const fake::LogLine& line : fake::log().lines()) {
        shape.push_back(std::to_string(line.level) + " " + withoutLineNumber(line.text));
    }
    return shape;
}

std::string errorShape(const std::string& unit, const std::string& function, const std::string& message) {
    return "1 file:" + unit + ", func:" + function + " line:# " + message;
}

std::string stepErrorShape(const std::string& unit, const std::string& function) {
    return errorShape(unit, function, unit + " " + function + " # error!!!\n");
}

std::string infoShape(const std::string& message) {
    return "3 " + message;
}

void letReadsGive(long bytes) {
    const std::lock_guard<std::mutex> lock(faults().mutex);
    faults().readResult = bytes;
}

void letMkdirLie(const std::string& path) {
    const std::lock_guard<std::mutex> lock(faults().mutex);
    faults().lyingMkdir = path;
}

unsigned lastMkdirMode() {
    const std::lock_guard<std::mutex> lock(faults().mutex);
    return faults().mkdirMode;
}

void reset() {
    fake::reset();
    fake::resetCommands();
    const std::lock_guard<std::mutex> lock(faults().mutex);
    faults().readResult.reset();
    faults().lyingMkdir.clear();
    faults().mkdirMode = 0;
}

CancellableThread::CancellableThread(std::function<void()> threadWork) : work(std::move(threadWork)) {
    if (pthread_create(&thread, nullptr, run, this) != 0) {
        throw std::runtime_error("no thread");
    }
}

bool CancellableThread::join() {
    void* result = nullptr;
    pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
}

void* CancellableThread::run(void* self) {
    static_cast<CancellableThread*>(self)->work();
    return nullptr;
}

Stock::Stock() : processes(testsupport::processPids()), descriptors(testsupport::descriptorTargets()) {}

void Stock::expectNothingLeft() const {
    EXPECT_TRUE(testsupport::children().empty());
    EXPECT_TRUE(testsupport::newProcesses(processes).empty());
    EXPECT_EQ(testsupport::descriptorTargets(), descriptors);
}

std::chrono::microseconds durationOf(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
}

void letCommandHang(const std::string& name) {
    shell("mkdir /tmp/bin && printf '#!/bin/sh\\nsleep 500 & touch /tmp/started; sleep 500\\n' > /tmp/bin/" +
          name + " && chmod +x /tmp/bin/" + name);
    setenv("PATH", "/tmp/bin:/usr/bin:/bin", 1);
}

void awaitHangingCommand() {
    while (!testsupport::exists("/tmp/started")) {
        usleep(1000);
    }
}

std::vector<std::string> awkwardPaths(const std::string& directory) {
    std::vector<std::string> paths;
    for (const char* name : {"two words",
                             " leading and trailing ",
                             "it's",
                             "say \"it\"",
                             "$(touch shell_ran)",
                             "`touch shell_ran`",
                             "a;touch shell_ran",
                             "a&touch shell_ran",
                             "a|b",
                             "line\nbreak",
                             "tab\there",
                             "*",
                             "?",
                             "[a]",
                             "~",
                             "$HOME",
                             "back\\slash",
                             "'; touch shell_ran; '",
                             "#hash",
                             "a>b",
                             "%s%n",
                             "{a,b}",
                             "!x",
                             "\xc3\xbc"}) {
        paths.push_back(directory + "/" + name);
    }
    return paths;
}

std::vector<std::string> awkwardRelativePaths() {
    return {
        "-rf", "--help", "-", "a:b", "host:/path", "user@host:file", "~", "-two words", "$(touch shell_ran)"};
}

std::string longPath(const std::string& directory, unsigned long length) {
    constexpr unsigned long kParentBytes = 200;
    constexpr unsigned long kNameLimit = 250;
    std::string path = directory;
    while (length - path.size() > kNameLimit) {
        path += "/" + std::string(kParentBytes, 'd');
    }
    std::filesystem::create_directories(path);
    return path + "/" + std::string(length - path.size() - 1, 'f');
}

void shell(const std::string& command) {
    if (system(command.c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

}  // namespace package_services

// In this executable these take the place of the real ones, which they call.

long COMMON_YR::readFileToBufferByOffset(const char* path, unsigned long offset, unsigned long length,
                                         char* buffer) {
    static const auto real = package_services::realFunction<decltype(&COMMON_YR::readFileToBufferByOffset)>(
        "_ZN9COMMON_YR24readFileToBufferByOffsetEPKcmmPc");
    const long result = real(path, offset, length, buffer);
    const std::lock_guard<std::mutex> lock(package_services::faults().mutex);
    return package_services::faults().readResult.value_or(result);
}

extern "C" __attribute__((visibility("default"))) int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real = package_services::realFunction<int (*)(const char*, mode_t)>("mkdir");
    {
        const std::lock_guard<std::mutex> lock(package_services::faults().mutex);
        package_services::faults().mkdirMode = mode;
        if (package_services::faults().lyingMkdir == path) {
            return 0;
        }
    }
    return real(path, mode);
}
