#include "tests/support/mcu_emulator.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>
#include <utility>

#include "tests/support/device.h"

namespace testsupport {
namespace {

constexpr std::chrono::seconds kPatience{30};
constexpr std::chrono::milliseconds kInterval{5};

// Beside the flash memory, so that a test which empties the device's directories keeps it.
std::string logOf(const std::string& flash) {
    return flash + ".log";
}

}  // namespace

McuEmulator::McuEmulator(std::string flashFile, std::string socketPath)
    : flash(std::move(flashFile)), socket(std::move(socketPath)) {}

McuEmulator::~McuEmulator() {
    stop();
}

bool McuEmulator::format(int version) {
    std::vector<std::string> words = {MCU_EMULATOR, "format", flash};
    if (version != kNoApplication) {
        words.insert(words.end(), {"--version", std::to_string(version)});
    }
    const ProgramResult result = runProgram(words);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return result.exitCode == 0;
}

bool McuEmulator::start(const std::vector<std::string>& faults) {
    stop();
    if (readFile(flash).rfind("KAVRO BOOT LOAD", 0) != 0 && !format()) {
        return false;
    }
    std::vector<std::string> words = {
        "bash",     "-c",  "exec \"$@\" 2>\"$0\"", logOf(flash), MCU_EMULATOR, "run", "--flash", flash,
        "--listen", socket};
    for (const std::string& fault : faults) {
        words.insert(words.end(), {"--fault", fault});
    }
    program = std::make_unique<Program>(words);
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!program->hasEnded() && std::chrono::steady_clock::now() < end) {
        if (accepts()) {
            return true;
        }
        std::this_thread::sleep_for(kInterval);
    }
    ADD_FAILURE() << "the emulated microcontroller does not come up: " << log();
    return false;
}

// A killed one is left to the destructor of the program.
int McuEmulator::stop() {
    if (!program) {
        return kNotRun;
    }
    if (!program->hasEnded()) {
        ::kill(program->pid(), SIGTERM);
    }
    const int code = waitForEnd();
    program.reset();
    return code;
}

int McuEmulator::waitForEnd() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (program && std::chrono::steady_clock::now() < end) {
        if (program->hasEnded()) {
            return program->wait().exitCode;
        }
        std::this_thread::sleep_for(kInterval);
    }
    return kNotRun;
}

bool McuEmulator::powerLost() {
    return program && program->hasEnded() && program->wait().exitCode == kPowerLostCode;
}

std::optional<int> McuEmulator::version() const {
    const ProgramResult result = runProgram({MCU_EMULATOR, "version", flash});
    if (result.exitCode != 0) {
        return std::nullopt;
    }
    return std::stoi(result.out);
}

std::string McuEmulator::log() const {
    return readFile(logOf(flash));
}

bool McuEmulator::accepts() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool accepted =
        ::connect(descriptor, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0;
    ::close(descriptor);
    return accepted;
}

}  // namespace testsupport
