// What the tests of the tools share: a temporary directory, a set of components, keys, and running programs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tool_test {

// A directory that is removed with all it holds.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }
    std::filesystem::path operator/(const std::string& name) const { return directory / name; }

  private:
    std::filesystem::path directory;
};

// Six valid components, without the version list; the microcontroller's application carries version 8.
void makeComponents(const std::filesystem::path& directory);

// Makes private keys by the openssl tool.
void makeEcKey(const std::filesystem::path& path);
void makeRsaKey(const std::filesystem::path& path, int bits = 2048);

struct ProgramResult {
    int exitCode = -1;  // 128 + signal when it died
    std::string out;
    std::string err;
};

// A running program whose standard output and error go to files.
class Program {
  public:
    // environment: settings added to this process's own, as "NAME=value".
    explicit Program(const std::vector<std::string>& words, const std::vector<std::string>& environment = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    int pid() const { return child; }
    std::string outputSoFar() const;
    // Waits until the output holds a text; false when the program ended or two minutes passed before it did.
    bool waitForOutput(const std::string& text);
    ProgramResult wait();

  private:
    bool hasEnded();

    TemporaryDirectory files;
    int child = -1;
    int status = 0;
    bool reaped = false;
};

// Runs a program to its end.
ProgramResult runProgram(const std::vector<std::string>& words,
                         const std::vector<std::string>& environment = {});
// Runs upgradectl to its end.
ProgramResult upgradectl(std::vector<std::string> arguments,
                         const std::vector<std::string>& environment = {});

}  // namespace tool_test
