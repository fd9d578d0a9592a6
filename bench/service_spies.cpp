// The device's services with a clock around them. They are in the program itself, so the upgrade manager's calls come here
// first; each goes on to the definition of the library that has it.
#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/timeline.h"
#include "common/flash_driver.h"
#include "common/utility.h"

namespace {

using bench::SpanTimer;

int insteadOfWriteMs = 0;
double processorMs = 0;

double processorMsSoFar() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

int onlySleep() {
    const double before = processorMsSoFar();
    const timespec pause = {insteadOfWriteMs / 1000, insteadOfWriteMs % 1000 * 1000000L};
    nanosleep(&pause, nullptr);
    processorMs = processorMsSoFar() - before;
    return -1;
}

// The definition behind this program's own.
template <typename Function>
Function* realOne(const char* symbol) {
    void* const address = dlsym(RTLD_NEXT, symbol);
    if (address == nullptr) {
        std::fprintf(stderr, "bench: no library has %s\n", symbol);
        std::abort();
    }
    return reinterpret_cast<Function*>(address);
}

std::string formatted(const char* format, va_list arguments) {
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    std::string result = length >= 0 ? text : "";
    if (length >= 0) {
        std::free(text);
    }
    return result;
}

// "tar", or "openssl ext4": the command and the last part of its last path.
std::string commandName(const std::string& command) {
    const std::string program = command.substr(0, command.find(' '));
    return program == "openssl" ? program + " " + command.substr(command.rfind('/') + 1) : program;
}

constexpr const char* kPreUpgradeOfMpu =
    "_ZN10UpgradeMpu10preUpgradeENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEbb";
constexpr const char* kPreUpgradeOfMcu =
    "_ZN10UpgradeMcu10preUpgradeENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEbb";

}  // namespace

namespace bench {

void replaceWriteBySleep(int milliseconds) {
    insteadOfWriteMs = milliseconds;
}

double processorMsOfSleep() {
    return processorMs;
}

}  // namespace bench

void printLog(int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string text = formatted(format, arguments);
    va_end(arguments);
    bench::recordLine(text);
    static auto* const real = realOne<void(int, const char*, ...)>("_Z8printLogiPKcz");
    real(level, "%s", text.c_str());
}

namespace COMMON_YR {

int cpFile(std::string src, std::string dst) {
    static auto* const real = realOne<int(std::string, std::string)>(
        "_ZN9COMMON_YR6cpFileENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES5_");
    const SpanTimer timer("cpFile " + dst.substr(dst.rfind('/') + 1));
    return real(src, dst);
}

bool chkFileMd5(const std::string& path, std::string md5Text) {
    static auto* const real = realOne<bool(const std::string&, std::string)>(
        "_ZN9COMMON_YR10chkFileMd5ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES5_");
    const SpanTimer timer("chkFileMd5");
    return real(path, md5Text);
}

int runSystem(const char* format, ...) {
    static auto* const real = realOne<int(const char*, ...)>("_ZN9COMMON_YR9runSystemEPKcz");
    va_list arguments;
    va_start(arguments, format);
    const std::string command = formatted(format, arguments);
    va_end(arguments);
    const SpanTimer timer(commandName(command));
    return real("%s", command.c_str());
}

}  // namespace COMMON_YR

int UpgradeMpu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    static auto* const real = realOne<int(UpgradeMpu*, std::string, bool, bool)>(kPreUpgradeOfMpu);
    const SpanTimer timer("mpu preUpgrade");
    return real(this, path, withLoader, mainProcessor);
}

int UpgradeMpu::upgrade() {
    static auto* const real = realOne<int(UpgradeMpu*)>("_ZN10UpgradeMpu7upgradeEv");
    if (insteadOfWriteMs > 0) {
        return onlySleep();
    }
    const SpanTimer timer("mpu upgrade");
    return real(this);
}

int UpgradeMpu::postUpgrade() {
    static auto* const real = realOne<int(UpgradeMpu*)>("_ZN10UpgradeMpu11postUpgradeEv");
    const SpanTimer timer("mpu postUpgrade");
    return real(this);
}

int UpgradeMcu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    static auto* const real = realOne<int(UpgradeMcu*, std::string, bool, bool)>(kPreUpgradeOfMcu);
    const SpanTimer timer("mcu preUpgrade");
    return real(this, path, withLoader, mainProcessor);
}

int UpgradeMcu::upgrade() {
    static auto* const real = realOne<int(UpgradeMcu*)>("_ZN10UpgradeMcu7upgradeEv");
    const SpanTimer timer("mcu upgrade");
    return real(this);
}

int UpgradeMcu::postUpgrade() {
    static auto* const real = realOne<int(UpgradeMcu*)>("_ZN10UpgradeMcu11postUpgradeEv");
    const SpanTimer timer("mcu postUpgrade");
    return real(this);
}

// The C library's, which the upgrade manager calls directly.
#pragma GCC visibility push(default)
extern "C" {

unsigned sleep(unsigned seconds) {
    static auto* const real = realOne<unsigned(unsigned)>("sleep");
    const SpanTimer timer("sleep");
    return real(seconds);
}

int usleep(useconds_t microseconds) {
    static auto* const real = realOne<int(useconds_t)>("usleep");
    constexpr useconds_t kWorthRecording = 50000;
    if (microseconds < kWorthRecording) {
        return real(microseconds);
    }
    const SpanTimer timer("usleep " + std::to_string(microseconds));
    return real(microseconds);
}

void sync() noexcept {
    static auto* const real = realOne<void()>("sync");
    const SpanTimer timer("sync");
    real();
}

}  // extern "C"
#pragma GCC visibility pop
