#include "tools/upgradectl/run_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace upgradectl {

namespace {

constexpr std::size_t kReadBytes = 16384;
constexpr std::size_t kLongestLine = 4096;  // what is longer is none of a run's

int openRegular(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (file >= 0 && (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode))) {
        ::close(file);
        return -1;
    }
    return file;
}

}  // namespace

LogFollower::LogFollower(std::string logPath) : path(std::move(logPath)) {
    if (namesAnotherFile()) {
        open();
    }
    if (file >= 0) {
        ::lseek(file, 0, SEEK_END);
    }
}

LogFollower::~LogFollower() {
    if (file >= 0) {
        ::close(file);
    }
}

std::vector<std::string> LogFollower::newLines() {
    std::vector<std::string> lines;
    readInto(lines);
    if (namesAnotherFile()) {
        readInto(lines);  // what came into the old one before it was moved away
        open();
        readInto(lines);
    }
    return lines;
}

void LogFollower::readInto(std::vector<std::string>& lines) {
    if (file < 0) {
        return;
    }
    struct stat status {};
    if (::fstat(file, &status) == 0 && ::lseek(file, 0, SEEK_CUR) > status.st_size) {
        ::lseek(file, 0, SEEK_SET);
        partialLine.clear();
    }
    std::array<char, kReadBytes> block{};
    ssize_t count = 0;
    while ((count = ::read(file, block.data(), block.size())) > 0) {
        const char* const end = block.data() + count;
        for (const char* start = block.data(); start != end;) {
            const char* const lineEnd = std::find(start, end, '\n');
            partialLine.append(start, lineEnd);
            if (lineEnd == end) {
                partialLine.resize(std::min(partialLine.size(), kLongestLine));
                break;
            }
            lines.push_back(std::exchange(partialLine, {}));
            start = lineEnd + 1;
        }
    }
}

bool LogFollower::namesAnotherFile() const {
    struct stat named {};
    return ::stat(path.c_str(), &named) == 0 && (file < 0 || named.st_dev != device || named.st_ino != inode);
}

void LogFollower::open() {
    const int next = openRegular(path);
    struct stat status {};
    if (next < 0 || ::fstat(next, &status) != 0) {
        return;
    }
    if (file >= 0) {
        ::close(file);
    }
    file = next;
    device = status.st_dev;
    inode = status.st_ino;
    partialLine.clear();
}

}  // namespace upgradectl
