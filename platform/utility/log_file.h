// A log in a file of bounded size that several processes write and others follow.
//
// A line is appended in one write, so that lines of several processes do not mix. A file that would outgrow its
// limit becomes NAME.1, in the place of the one before it, and a new one begins. Where it cannot be moved away,
// it grows to twice the limit, and then lines are lost.
#pragma once

#include <string>
#include <string_view>

#include "base/file_descriptor.h"

namespace kavro {

class LogFile {
  public:
    // An empty path is no log.
    LogFile(std::string path, long long limitBytes);

    // Appends a line, its line break included. A failure (no directory, full disk, something else than a regular
    // file at the path) loses the line and nothing else; the next line tries again. Not for several threads at
    // once, and not a cancellation point as long as the caller holds cancellation off.
    void append(std::string_view line);

  private:
    // Opens the file that the path names now, unless it is the open one already.
    bool follow();
    void rotate();
    [[nodiscard]] bool isCurrent() const;
    [[nodiscard]] bool wouldOutgrow(long long bytes, std::string_view line) const;

    const std::string name;
    const long long limit;
    FileDescriptor file;
};

}  // namespace kavro
