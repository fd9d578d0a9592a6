// How a command of upgradectl fails: with an exit code, a text that says what failed on which file, and the
// next step.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace upgradectl {

// The process's exit codes. Scripts depend on them; docs/upgradectl.md lists them.
enum class ExitCode : int {
    kOk = 0,
    kOther = 1,        // the machine or the device: no room, no permission, a missing partition
    kUsage = 2,        // the command line
    kRefused = 3,      // the package, or what one is to be made of; nothing was flashed
    kFlashFailed = 4,  // flashing had begun
    kGivenUp = 5,      // interrupted in time; nothing was flashed
};

class ToolError : public std::runtime_error {
  public:
    // what: one sentence without a full stop that names the file. next: what the user can do about it.
    // details: the device's own words on it, if any.
    ToolError(ExitCode exitCode, const std::string& what, std::string next,
              std::vector<std::string> details = {})
        : std::runtime_error(what),
          code(exitCode),
          nextStep(std::move(next)),
          deviceWords(std::move(details)) {}

    ExitCode exitCode() const { return code; }
    const std::string& next() const { return nextStep; }
    const std::vector<std::string>& details() const { return deviceWords; }

    // Failures of the same exit code that were found along with this one, and are told behind it.
    const std::vector<ToolError>& further() const { return others; }
    void add(ToolError other) { others.push_back(std::move(other)); }

  private:
    ExitCode code;
    std::string nextStep;
    std::vector<std::string> deviceWords;
    std::vector<ToolError> others;
};

}  // namespace upgradectl
