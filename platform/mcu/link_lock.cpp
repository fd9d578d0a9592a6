#include "platform/mcu/link_lock.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "base/errno_text.h"
#include "platform/mcu/byte_link.h"

namespace kavro {

// Asks again and again, since a lock that is waited for cannot be given up.
bool lockLink(const FileDescriptor& file, const std::string& path, std::string& error) {
    constexpr int kTurnMs = 10;
    for (int waitedMs = 0;; waitedMs += kTurnMs) {
        if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            error = fileError(path, "cannot be locked", errno);
            return false;
        }
        if (waitedMs >= kLinkLockMs) {
            error = path + ": is in use by another program, which talks to the microcontroller";
            return false;
        }
        ::usleep(kTurnMs * 1000);
    }
}

}  // namespace kavro
