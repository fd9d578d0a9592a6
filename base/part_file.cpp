#include "base/part_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "base/file_io.h"

namespace kavro {
namespace {

constexpr int kMaxNames = 64;
constexpr int kMaxRaces = 64;

// NAME.part, NAME.part1, ...; a name that would become too long loses its end.
std::string partName(const std::string& replaced, int number) {
    const std::string suffix = number == 0 ? ".part" : ".part" + std::to_string(number);
    const std::size_t slash = replaced.rfind('/');
    const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    return replaced.substr(0, nameStart) + replaced.substr(nameStart, NAME_MAX - suffix.size()) + suffix;
}

// Locks the file that is open; false when another writer has the lock, or nobody can.
bool lock(int fd) {
    return flock(fd, LOCK_EX | LOCK_NB) == 0;
}

// Not every network's file system has locks: what was made there is ours without one.
bool lockIfPossible(int fd) {
    return lock(fd) || errno != EWOULDBLOCK;
}

// Removes what a writer that is no more has left behind. False when the name must stay as it is.
bool removeLeftover(const std::string& path, const struct stat* spared) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        return errno == ENOENT;
    }
    struct stat status;
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    if ((spared != nullptr && isSameFile(status, *spared)) || !lock(file.get())) {
        return false;
    }
    // A writer may have finished between the opening and the lock: then the open file has another name by
    // now.
    return !isNamed(file.get(), path) || unlink(path.c_str()) == 0;
}

}  // namespace

PartFile::~PartFile() {
    if (!name.empty()) {
        unlink(name.c_str());
    }
}

bool PartFile::create(const std::string& replaced, mode_t mode, const struct stat* spared) {
    target = replaced;
    for (int number = 0; number < kMaxNames; ++number) {
        const std::string candidate = partName(target, number);
        if (candidate == target) {
            continue;
        }
        const Claim result = claim(candidate, mode, spared);
        if (result == Claim::kDone) {
            name = candidate;
            return true;
        }
        if (result == Claim::kFailed) {
            return false;
        }
    }
    errno = EBUSY;
    return false;
}

PartFile::Claim PartFile::claim(const std::string& candidate, mode_t mode, const struct stat* spared) {
    for (int race = 0; race < kMaxRaces; ++race) {
        FileDescriptor made(open(candidate.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (made.valid()) {
            // Until it is locked, another writer may take the new file for a leftover and remove it.
            if (lockIfPossible(made.get()) && isNamed(made.get(), candidate)) {
                file = std::move(made);
                return Claim::kDone;
            }
            continue;
        }
        if (errno != EEXIST) {
            return Claim::kFailed;
        }
        if (!removeLeftover(candidate, spared)) {
            return Claim::kTaken;
        }
    }
    return Claim::kTaken;
}

bool PartFile::commit() {
    if (!flushFile(file.get())) {
        return false;
    }
    if (rename(name.c_str(), target.c_str()) != 0) {
        placeBusy = errno == EBUSY;
        return false;
    }
    name.clear();
    const bool closed = file.close();
    return flushDirectory(parentDirectory(target)) && closed;
}

}  // namespace kavro
