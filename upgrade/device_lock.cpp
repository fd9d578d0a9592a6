#include "upgrade/device_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <mutex>

#include "common/cancellation.h"

namespace {

// A directory that every device has, on storage that no run empties.
constexpr const char* kLockedDirectory = "/config";

// Who only asks whether the lock is held has it for an instant, too.
constexpr int kTries = 10;
constexpr unsigned kPauseUs = 10000;

constexpr int kNotOpen = -1;

std::mutex ownMutex;
int ownDescriptor = kNotOpen;  // of the directory, while this process holds the lock
int ownCount = 0;

int openDirectory() {
    return open(kLockedDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// The process that has locked this directory, as the kernel lists it; 0 when it does not.
int pidOfHolder(int descriptor) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return 0;
    }
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        int pid = 0;
        unsigned device[2] = {};
        unsigned long inode = 0;
        // "1: FLOCK  ADVISORY  WRITE 1234 fd:01:131074 0 EOF"; READ is that of a question, "->" in front of FLOCK one that waits.
        if (std::sscanf(line.c_str(), "%*d: FLOCK ADVISORY WRITE %d %x:%x:%lu", &pid, &device[0], &device[1],
                        &inode) == 4 &&
            device[0] == major(status.st_dev) && device[1] == minor(status.st_dev) &&
            inode == status.st_ino) {
            return pid;
        }
    }
    return 0;
}

UpgradeLockHolder holderOf(int pid) {
    UpgradeLockHolder holder;
    holder.pid = std::max(pid, 0);
    if (holder.pid > 0) {
        std::ifstream file("/proc/" + std::to_string(holder.pid) + "/cmdline");
        std::getline(file, holder.command, '\n');
        std::replace(holder.command.begin(), holder.command.end(), '\0', ' ');
        holder.command.erase(holder.command.find_last_not_of(' ') + 1);
    }
    return holder;
}

// Where only a question is in the way, it is over after a moment.
UpgradeLockResult lockExclusively(int descriptor) {
    for (int tries = kTries; flock(descriptor, LOCK_EX | LOCK_NB) != 0; --tries) {
        if (errno != EWOULDBLOCK) {
            return UPGRADE_LOCK_NO_PLACE;
        }
        if (tries == 1 || pidOfHolder(descriptor) != 0) {
            return UPGRADE_LOCK_HELD;
        }
        usleep(kPauseUs);
    }
    return UPGRADE_LOCK_TAKEN;
}

}  // namespace

UpgradeLockResult UPGRADE_lock_device(UpgradeLockHolder* holder) {
    const COMMON_YR::CancelHold hold;
    const std::lock_guard<std::mutex> guard(ownMutex);
    if (ownCount > 0) {
        ++ownCount;
        return UPGRADE_LOCK_TAKEN;
    }
    const int descriptor = openDirectory();
    if (descriptor < 0) {
        return UPGRADE_LOCK_NO_PLACE;
    }
    const UpgradeLockResult result = lockExclusively(descriptor);
    if (result == UPGRADE_LOCK_TAKEN) {
        ownDescriptor = descriptor;
        ownCount = 1;
        return result;
    }
    if (result == UPGRADE_LOCK_HELD && holder != nullptr) {
        *holder = holderOf(pidOfHolder(descriptor));
    }
    close(descriptor);
    return result;
}

void UPGRADE_unlock_device() {
    const COMMON_YR::CancelHold hold;
    const std::lock_guard<std::mutex> guard(ownMutex);
    if (ownCount == 0 || --ownCount > 0) {
        return;
    }
    close(ownDescriptor);
    ownDescriptor = kNotOpen;
}

bool UPGRADE_is_device_locked(UpgradeLockHolder* holder) {
    const COMMON_YR::CancelHold hold;
    const std::lock_guard<std::mutex> guard(ownMutex);
    if (ownCount > 0) {
        if (holder != nullptr) {
            *holder = holderOf(getpid());
        }
        return true;
    }
    const int descriptor = openDirectory();
    if (descriptor < 0) {
        return false;
    }
    // The list has no process of another PID name space; the lock itself tells of those.
    const int pid = pidOfHolder(descriptor);
    const bool isHeld = pid != 0 || (flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK);
    if (isHeld && holder != nullptr) {
        *holder = holderOf(pid);
    }
    close(descriptor);
    return isHeld;
}
