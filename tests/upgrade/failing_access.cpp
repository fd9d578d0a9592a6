#include "tests/upgrade/failing_access.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace upgradetest {
namespace {

std::string unanswered;

}  // namespace

UnansweredPath::UnansweredPath(const std::string& path) {
    unanswered = path;
}

UnansweredPath::~UnansweredPath() {
    unanswered.clear();
}

}  // namespace upgradetest

// Takes the place of the C library's for the library under test.
extern "C" __attribute__((visibility("default"))) int access(const char* path, int mode) noexcept {
    if (path == upgradetest::unanswered) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}
