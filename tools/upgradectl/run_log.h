// Follows a run of another process in the device's log file, where each change of its stage is a line:
//
//     2026-11-21 10:30:59.123 [warning] &&&&& upgrade [stage START], [result INPROGRESS_MPU] &&&&&
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace upgradectl {

// What a log line says about a run, in the library's names; nothing when it is another line.
struct RunReport {
    std::string stage;
    std::string state;
};
std::optional<RunReport> runReportIn(const std::string& line);

// Gives the lines that are added to a log file from now on, also when the file is removed, begun anew or moved
// away because it was full. A file that is not there yet, or no longer, is waited for.
class LogFollower {
  public:
    explicit LogFollower(std::string path);
    ~LogFollower();
    LogFollower(const LogFollower&) = delete;
    LogFollower& operator=(const LogFollower&) = delete;

    // The whole lines that were added since the last call, without their line breaks. Does not wait.
    std::vector<std::string> newLines();

  private:
    void readInto(std::vector<std::string>& lines);
    // Whether the path has come to name another file than the open one.
    bool namesAnotherFile() const;
    // Changes over to the file that the path names, unless that fails.
    void open();

    const std::string path;
    int file = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::string partialLine;
};

}  // namespace upgradectl
