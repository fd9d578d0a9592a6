#include "tools/upgradectl/own_output.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace upgradectl {

namespace {

constexpr int kDefaultColumns = 80;

}  // namespace

OwnOutput::OwnOutput() {
    std::fflush(stdout);
    descriptor = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null == STDOUT_FILENO) {
        fcntl(null, F_SETFD, 0);  // for the commands, which fail without a standard output
    } else if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

OwnOutput::~OwnOutput() {
    if (descriptor >= 0) {
        dup2(descriptor, STDOUT_FILENO);
        close(descriptor);
    }
}

void OwnOutput::write(const std::string& text) const {
    std::size_t done = 0;
    while (descriptor >= 0 && done < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) {
            return;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

bool OwnOutput::isTerminal() const {
    return descriptor >= 0 && isatty(descriptor) == 1;
}

int OwnOutput::columns() const {
    winsize size = {};
    const bool known = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : kDefaultColumns;
}

}  // namespace upgradectl
