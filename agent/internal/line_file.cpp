#include "agent/internal/line_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <thread>

#include "base/errno_text.h"
#include "base/failure.h"
#include "base/file_descriptor.h"
#include "base/file_io.h"
#include "base/part_file.h"

namespace kavro::agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kPermissionBits = 07777;

constexpr int kMostRaces = 64;

constexpr auto kLockPause = 1ms;
constexpr auto kLongestLockWait = 10s;

Failure failure(const std::string& path, const char* step) {
    return {ErrorCode::kOther, "'" + path + "' cannot be " + step + " (" + reasonOf(errno) + ")",
            "check the directory, its permissions and the room there"};
}

std::uint64_t sizeOf(int fd, const std::string& path) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        throw failure(path, "examined");
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure(ErrorCode::kOther, "'" + path + "' is no regular file", "remove what is there");
    }
    return static_cast<std::uint64_t>(status.st_size);
}

// Whoever may read the file can lock it: nothing here waits for that without end. Not every network's file system has
// locks: a line without one is better than none.
void lock(int fd, const std::string& path) {
    const Clock::time_point begin = Clock::now();
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return;
        }
        if (Clock::now() - begin >= kLongestLockWait) {
            throw Failure(ErrorCode::kOther, "'" + path + "' is locked by another program",
                          "end that program, /proc/locks lists it");
        }
        std::this_thread::sleep_for(kLockPause);
    }
}

// The file to append to, which is made when there is none. Another process may replace it between the opening and the lock:
// what was opened is no more the file of that name then, and a line in it would be lost.
FileDescriptor openLocked(const std::string& path) {
    for (int race = 0; race < kMostRaces; ++race) {
        FileDescriptor file(open(path.c_str(),
                                 O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                 kNewFileMode));
        if (!file.valid()) {
            throw failure(path, "opened");
        }
        lock(file.get(), path);
        if (isNamed(file.get(), path)) {
            return file;
        }
    }
    errno = EBUSY;
    throw failure(path, "opened");
}

std::vector<std::string> linesOf(int fd, const std::string& path, std::size_t mostBytes) {
    const std::uint64_t size = sizeOf(fd, path);
    const std::uint64_t begin = size > mostBytes ? size - mostBytes : 0;
    std::string text(size - begin, '\0');
    const ssize_t count = readFullyAt(fd, text.data(), text.size(), static_cast<off_t>(begin));
    if (count < 0) {
        throw failure(path, "read");
    }
    text.resize(static_cast<std::size_t>(count));
    if (begin > 0) {
        text.erase(0, text.find('\n') + 1);  // the rest of a line
    }
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool endsInTheMiddle(int fd, const std::string& path, std::uint64_t size) {
    char last = '\n';
    if (size > 0 && readFullyAt(fd, &last, 1, static_cast<off_t>(size - 1)) < 0) {
        throw failure(path, "read");
    }
    return last != '\n';
}

void appendInPlace(int fd, const std::string& path, std::uint64_t size, const std::string& text) {
    if (writeFully(fd, text.data(), text.size()) && flushFile(fd)) {
        return;
    }
    const Failure cause = failure(path, "written");
    (void)!ftruncate(fd, static_cast<off_t>(size));  // nobody wants half a line
    throw cause;
}

// The lines of which the older ones are gone, and the new one.
std::string shortened(std::vector<std::string> lines, const std::string& line, std::size_t mostBytes) {
    std::string text;
    do {
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>((lines.size() + 1) / 2));
        text.clear();
        for (const std::string& kept : lines) {
            text += kept + "\n";
        }
        text += line + "\n";
    } while (text.size() > mostBytes && !lines.empty());
    return text;
}

// The lock on the file that is replaced keeps others from appending to it meanwhile.
void replace(int fd, const std::string& path, const std::string& text) {
    struct stat status = {};
    PartFile part;
    if (fstat(fd, &status) != 0 || !part.create(path, kNewFileMode, nullptr)) {
        throw failure(path, "replaced");
    }
    (void)fchmod(part.fd(), status.st_mode & kPermissionBits);
    if (!writeFully(part.fd(), text.data(), text.size()) || !part.commit()) {
        throw failure(path, "replaced");
    }
}

}  // namespace

void appendLine(const std::string& path, const std::string& line, std::size_t mostBytes) {
    const FileDescriptor file = openLocked(path);
    const std::uint64_t size = sizeOf(file.get(), path);
    const std::string text = (endsInTheMiddle(file.get(), path, size) ? "\n" : "") + line + "\n";
    if (size + text.size() > mostBytes) {
        replace(file.get(), path, shortened(linesOf(file.get(), path, mostBytes), line, mostBytes));
        return;
    }
    appendInPlace(file.get(), path, size, text);
    // Also when the file was there: who made it may not have come to that yet.
    if (!flushDirectory(parentDirectory(path))) {
        throw failure(path, "flushed to storage");
    }
}

std::vector<std::string> readLines(const std::string& path, std::size_t mostBytes) {
    const FileDescriptor file = openToRead(path);
    if (!file.valid()) {
        if (errno == ENOENT) {
            return {};
        }
        throw failure(path, "opened");
    }
    return linesOf(file.get(), path, mostBytes);
}

}  // namespace kavro::agent
