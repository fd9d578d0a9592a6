#include "tests/tools/tool_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "tests/support/device.h"
#include "tests/support/test_package.h"

namespace tool_test {

namespace fs = std::filesystem;

namespace {

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error("test support: " + what);
    }
}

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

TemporaryDirectory::TemporaryDirectory() {
    std::string name = (fs::temp_directory_path() / "tools_test.XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "no temporary directory");
    directory = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(directory, ignored);
}

void makeComponents(const fs::path& directory) {
    constexpr std::uint32_t kRamStart = 0x20000000;
    fs::create_directories(directory);
    testsupport::writeFile(directory / "bld_release.bin", std::string(5000, 'b'));
    testsupport::writeFile(directory / "cv22_kavro_qz7.dtb", "a device tree");
    testsupport::writeFile(directory / "ext4", std::string(300000, 'e'));
    testsupport::writeFile(directory / "Image", std::string(70000, 'k'));
    testsupport::writeFile(directory / "mcu_flash_app.s19", testsupport::mcuApplication(8));
    testsupport::writeFile(directory / "mcu_flash_drv.s19",
                           testsupport::srecords(kRamStart, "the flash driver's code"));
}

void makeEcKey(const fs::path& path) {
    const ProgramResult result = runProgram({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                                             "ec_paramgen_curve:P-256", "-out", path.string()});
    require(result.exitCode == 0, "openssl genpkey: " + result.err);
}

void makeRsaKey(const fs::path& path, int bits) {
    const ProgramResult result =
        runProgram({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                    "rsa_keygen_bits:" + std::to_string(bits), "-out", path.string()});
    require(result.exitCode == 0, "openssl genpkey: " + result.err);
}

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
    require(error == 0, "cannot start " + words.front());
}

Program::~Program() {
    if (!reaped) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

std::string Program::outputSoFar() const {
    return testsupport::readFile(files / "out");
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
    return {exitCode, testsupport::readFile(files / "out"), testsupport::readFile(files / "err")};
}

ProgramResult runProgram(const std::vector<std::string>& words, const std::vector<std::string>& environment) {
    return Program(words, environment).wait();
}

ProgramResult upgradectl(std::vector<std::string> arguments, const std::vector<std::string>& environment) {
    arguments.insert(arguments.begin(), UPGRADECTL);
    return runProgram(arguments, environment);
}

}  // namespace tool_test
