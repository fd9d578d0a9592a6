#include "tests/support/mcu_emulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

namespace testsupport {
namespace {

constexpr std::chrono::seconds kPatience{30};
constexpr std::chrono::milliseconds kInterval{5};

// A file of its own for what the program says.
std::string logOf(const std::string& flash) {
    return flash + ".log";
}

std::string contentOf(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Starts the program with its output and errors in a file. Returns its pid, 0 when it does not start.
pid_t spawn(const std::vector<std::string>& arguments, const std::string& output) {
    std::vector<char*> words;
    const std::string program = MCU_EMULATOR;
    words.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    // The test may have blocked signals that are to end the program.
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

    pid_t pid = 0;
    const int problem = ::posix_spawn(&pid, program.c_str(), &files, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (problem != 0) {
        ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(problem);
        return 0;
    }
    return pid;
}

// Runs the program to its end. Returns its exit code, negative when it has none.
int runToEnd(const std::vector<std::string>& arguments, const std::string& output) {
    const pid_t pid = spawn(arguments, output);
    int status = 0;
    if (pid == 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

}  // namespace

McuEmulator::McuEmulator(std::string flashFile, std::string socketPath)
    : flash(std::move(flashFile)), socket(std::move(socketPath)) {}

McuEmulator::~McuEmulator() {
    stop();
}

bool McuEmulator::format(int version) {
    std::vector<std::string> arguments = {"format", flash};
    if (version != kNoApplication) {
        arguments.insert(arguments.end(), {"--version", std::to_string(version)});
    }
    const int code = runToEnd(arguments, logOf(flash));
    EXPECT_EQ(code, 0) << log();
    return code == 0;
}

bool McuEmulator::start(const std::vector<std::string>& faults) {
    stop();
    if (contentOf(flash).rfind("KAVRO BOOT LOAD", 0) != 0 && !format()) {
        return false;
    }
    std::vector<std::string> arguments = {"run", "--flash", flash, "--listen", socket};
    for (const std::string& fault : faults) {
        arguments.insert(arguments.end(), {"--fault", fault});
    }
    child = spawn(arguments, logOf(flash));
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (child != 0 && !hasEnded() && std::chrono::steady_clock::now() < end) {
        if (accepts()) {
            return true;
        }
        std::this_thread::sleep_for(kInterval);
    }
    ADD_FAILURE() << "the emulated microcontroller does not come up: " << log();
    return false;
}

int McuEmulator::stop() {
    if (child == 0) {
        return -1;
    }
    ::kill(child, SIGTERM);
    const int code = waitForEnd();
    if (child != 0) {
        ::kill(child, SIGKILL);
        reap(0);
    }
    return code;
}

int McuEmulator::waitForEnd() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!hasEnded() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kInterval);
    }
    return child == 0 ? lastExitCode : -1;
}

bool McuEmulator::hasEnded() {
    return child == 0 || reap(WNOHANG);
}

std::optional<int> McuEmulator::version() const {
    const std::string output = flash + ".version";
    if (runToEnd({"version", flash}, output) != 0) {
        return std::nullopt;
    }
    return std::stoi(contentOf(output));
}

std::string McuEmulator::log() const {
    return contentOf(logOf(flash));
}

bool McuEmulator::reap(int options) {
    int status = 0;
    if (::waitpid(child, &status, options) != child) {
        return false;
    }
    child = 0;
    lastExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return true;
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
