// Running other programs from a test.
#pragma once

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace testsupport {

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
    bool hasEnded();
    ProgramResult wait();

  private:
    kavro_test::TempDir files;
    int child = -1;
    int status = 0;
    bool reaped = false;
};

// Runs a program to its end.
ProgramResult runProgram(const std::vector<std::string>& words,
                         const std::vector<std::string>& environment = {});

}  // namespace testsupport
