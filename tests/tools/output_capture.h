// What an OwnOutput writes, for a test: it takes over file descriptor 1 while it exists.
#pragma once

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/support/device.h"
#include "tests/support/temp_dir.h"

namespace tool_test {

// Leads file descriptor 1 elsewhere, and back at its end.
class OutputRedirection {
  public:
    explicit OutputRedirection(int target) {
        std::fflush(stdout);
        saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        dup2(target, STDOUT_FILENO);
    }
    ~OutputRedirection() {
        dup2(saved, STDOUT_FILENO);
        close(saved);
    }
    OutputRedirection(const OutputRedirection&) = delete;
    OutputRedirection& operator=(const OutputRedirection&) = delete;

  private:
    int saved;
};

// What write(), called with standard output in a file, has put there.
template <typename Write>
std::string capturedOutput(const Write& write) {
    const kavro_test::TempDir files;
    const std::string path = files / "output";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    {
        const OutputRedirection redirection(file);
        write();
    }
    close(file);
    return testsupport::readFile(path);
}

// The same with standard output on a terminal of that many columns, that shows what it gets as it is. At most what fits
// into a terminal's buffer, some KiB.
template <typename Write>
std::string capturedTerminal(unsigned short columns, const Write& write) {
    int reader = -1;
    int terminal = -1;
    winsize size = {};
    size.ws_row = 24;
    size.ws_col = columns;
    if (openpty(&reader, &terminal, nullptr, nullptr, &size) != 0) {
        return "no terminal";
    }
    termios mode = {};
    tcgetattr(terminal, &mode);
    cfmakeraw(&mode);
    tcsetattr(terminal, TCSANOW, &mode);
    {
        const OutputRedirection redirection(terminal);
        write();
    }
    std::string text;
    char block[4096];
    fcntl(reader, F_SETFL, O_NONBLOCK);
    for (ssize_t count = 0; (count = read(reader, block, sizeof block)) > 0;) {
        text.append(block, static_cast<std::size_t>(count));
    }
    close(terminal);
    close(reader);
    return text;
}

}  // namespace tool_test
