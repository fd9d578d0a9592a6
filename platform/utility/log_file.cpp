#include "platform/utility/log_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include "base/file_io.h"

namespace kavro {
namespace {

constexpr mode_t kMode = 0644;

// A file that cannot be moved away, or not just now, is written on up to so many times its limit.
constexpr long long kToleratedLimits = 2;

}  // namespace

LogFile::LogFile(std::string path, long long limitBytes)
    : name(std::move(path)),
      limit(std::min(limitBytes, std::numeric_limits<long long>::max() / kToleratedLimits)) {}

void LogFile::append(std::string_view line) {
    if (name.empty() || !follow()) {
        return;
    }
    if (wouldOutgrow(limit, line)) {
        rotate();
    }
    if (!wouldOutgrow(kToleratedLimits * limit, line)) {
        (void)writeFully(file.get(), line.data(), line.size());
    }
}

// A line that is longer than the limit by itself gets a file of its own.
bool LogFile::wouldOutgrow(long long bytes, std::string_view line) const {
    struct stat status {};
    return ::fstat(file.get(), &status) != 0 ||
           (status.st_size > 0 && status.st_size + static_cast<long long>(line.size()) > bytes);
}

bool LogFile::isCurrent() const {
    return file.valid() && isNamed(file.get(), name);
}

bool LogFile::follow() {
    if (isCurrent()) {
        return true;
    }
    // The directory may be one that everybody writes to: nobody is to lead the log elsewhere by a link, or have it
    // wait by a FIFO.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    file = FileDescriptor(::open(name.c_str(), kFlags, kMode));
    struct stat status {};
    if (file.valid() && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file = FileDescriptor();
    }
    return file.valid();
}

// Two processes may find the file full at the same time: the second one must not put the new file, with a line or
// two in it, in the place of the old one. Nobody waits for the lock, which every reader of the file could hold.
void LogFile::rotate() {
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        return;
    }
    if (isCurrent()) {
        (void)std::rename(name.c_str(), (name + ".1").c_str());
    }
    (void)::flock(file.get(), LOCK_UN);
    (void)follow();
}

}  // namespace kavro
