// Follows what other processes log in the device's log file.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace upgradectl {

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
