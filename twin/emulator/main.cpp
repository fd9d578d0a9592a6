// mcu-emulator: the companion microcontroller of a device twin, on a unix socket.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "twin/emulator/application.h"
#include "twin/emulator/command_line.h"
#include "twin/emulator/fault.h"
#include "twin/emulator/flash_memory.h"
#include "twin/emulator/link_end.h"
#include "twin/emulator/microcontroller.h"
#include "twin/emulator/socket_server.h"

namespace {

using namespace kavro::emulator;

enum ExitCode { kInOrder = 0, kFailure = 1, kMisuse = 2, kPowerLost = 3, kFlashInUse = 4 };

// How soon the end of the last lock on the lock file is noticed.
constexpr Milliseconds kLockInterval{100};

constexpr const char* kResetRequestName = "/reset_request";

ExitCode fail(ExitCode code, const std::string& error) {
    std::fprintf(stderr, "mcu-emulator: %s\n", error.c_str());
    return code;
}

ExitCode failOpening(Opening opening, const std::string& error) {
    return fail(opening == Opening::kInUse ? kFlashInUse : kFailure, error);
}

// A line of the log, with the seconds since the first one.
void tell(const std::string& line) {
    static const Time start = std::chrono::steady_clock::now();
    const std::chrono::duration<double> since = std::chrono::steady_clock::now() - start;
    std::fprintf(stderr, "%9.3f %s\n", since.count(), line.c_str());
}

// The signals that end the program, as something to wait for. An interrupt that whoever started it ignores does
// not concern the emulator either.
kavro::FileDescriptor takeEndingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    struct sigaction interrupt {};
    if (::sigaction(SIGINT, nullptr, &interrupt) == 0 && interrupt.sa_handler != SIG_IGN) {
        sigaddset(&signals, SIGINT);
    }
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return kavro::FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool signalled(const kavro::FileDescriptor& signals) {
    signalfd_siginfo information{};
    return ::read(signals.get(), &information, sizeof information) > 0;
}

// Nobody holds a lock on the file any more. The lock that tells so is kept: whoever wants the next one waits until
// this program has ended.
bool unlocked(const kavro::FileDescriptor& lockFile) {
    return lockFile.valid() && ::flock(lockFile.get(), LOCK_EX | LOCK_NB) == 0;
}

// What the main processor would notice; a twin has none that runs all the time.
void requestReset(const std::string& flash) {
    const std::string path = kavro::parentDirectory(flash) + kResetRequestName;
    const kavro::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    tell(file.valid() ? "resets the main processor" : kavro::fileError(path, "cannot be made", errno));
}

ExitCode run(const CommandLine& line) {
    const kavro::FileDescriptor signals = takeEndingSignals();
    if (!signals.valid()) {
        return fail(kFailure, kavro::fileError("signals", "cannot be waited for", errno));
    }
    std::string error;
    kavro::FileDescriptor lockFile;  // the last to go: whoever has the next lock finds the flash memory free
    FlashMemory flash;
    if (const Opening opening = flash.open(line.flash, error); opening != Opening::kOpened) {
        return failOpening(opening, error);
    }
    if (!line.lockFile.empty()) {
        lockFile = kavro::FileDescriptor(::open(line.lockFile.c_str(), O_RDONLY | O_CLOEXEC));
        if (!lockFile.valid()) {
            return fail(kFailure, kavro::fileError(line.lockFile, "cannot be opened", errno));
        }
    }

    SocketServer server;
    if (!server.listen(line.listen, error)) {
        return fail(kFailure, error);
    }
    FaultPlan faults(line.faults);
    Microcontroller microcontroller(
        flash, {[&line] { requestReset(line.flash); }, [&faults] { return faults.nextBlock(); }, tell});
    LinkEnd end(microcontroller, faults, tell);
    const auto goOn = [&] {
        return !microcontroller.powerLost() && !signalled(signals) && !unlocked(lockFile);
    };
    if (!server.appear(error) || !server.serve(end, goOn, signals.get(), kLockInterval, error)) {
        return fail(kFailure, error);
    }
    tell(microcontroller.powerLost() ? "has no power any more [fault: power-loss]" : "is switched off");
    return microcontroller.powerLost() ? kPowerLost : kInOrder;
}

ExitCode format(const CommandLine& line) {
    std::string error;
    kavro::Bytes application;
    if (line.version) {
        application = minimalApplication(*line.version);
    } else if (!line.application.empty()) {
        const std::optional<kavro::Bytes> read = applicationImage(line.application, error);
        if (!read) {
            return fail(kFailure, error);
        }
        application = *read;
    }
    const Opening opening = FlashMemory::format(line.flash, flashWith(application), error);
    return opening == Opening::kOpened ? kInOrder : failOpening(opening, error);
}

// Reads beside an emulator that runs, too.
ExitCode version(const CommandLine& line) {
    std::string error;
    FlashMemory flash;
    if (!flash.read(line.flash, error)) {
        return fail(kFailure, error);
    }
    const std::optional<int> found = runnableVersion(flash.bytes());
    std::puts(found ? std::to_string(*found).c_str() : "none");
    return found ? kInOrder : kFailure;
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    std::string error;
    const auto line =
        readCommandLine(std::vector<std::string>(arguments + 1, arguments + argumentCount), error);
    if (!line) {
        return fail(kMisuse, error + " (see 'mcu-emulator help')");
    }
    switch (line->command) {
        case Command::kRun:
            return run(*line);
        case Command::kFormat:
            return format(*line);
        case Command::kVersion:
            return version(*line);
        case Command::kHelp:
            break;
    }
    std::fputs(usageText().c_str(), stdout);
    return kInOrder;
}
