#include "tests/support/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "tests/support/device.h"

namespace testsupport {

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

}  // namespace

Program::Program(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
    std::vector<std::string> arguments = words;
    std::vector<std::string> settings;
    for (char** setting = environ; *setting != nullptr; ++setting) {
        settings.emplace_back(*setting);
    }
    // The first of two settings of a name counts.
    settings.insert(settings.begin(), environment.begin(), environment.end());

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, (files / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, (files / "err").c_str(), O_WRONLY | O_CREAT, 0600);
    const int error = posix_spawnp(&child, words.front().c_str(), &actions, nullptr,
                                   pointers(arguments).data(), pointers(settings).data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("test support: cannot start " + words.front());
    }
}

Program::~Program() {
    if (!reaped) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

std::string Program::outputSoFar() const {
    return readFile(files / "out");
}

bool Program::hasEnded() {
    reaped = reaped || waitpid(child, &status, WNOHANG) == child;
    return reaped;
}

bool Program::waitForOutput(const std::string& text) {
    for (int i = 0; i < 12000; ++i) {
        const bool ended = hasEnded();
        if (outputSoFar().find(text) != std::string::npos) {
            return true;
        }
        if (ended) {
            return false;
        }
        usleep(10000);
    }
    return false;
}

ProgramResult Program::wait() {
    if (!reaped) {
        waitpid(child, &status, 0);
        reaped = true;
    }
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {exitCode, readFile(files / "out"), readFile(files / "err")};
}

ProgramResult runProgram(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
    return Program(words, environment).wait();
}

}  // namespace testsupport
