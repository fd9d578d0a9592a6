// What a test process holds: descriptors, children.
#pragma once

#include <dirent.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

namespace kavro_test {

inline int openDescriptors() {
    DIR* const directory = opendir("/proc/self/fd");
    int count = -3;  // ".", ".." and the directory's own
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

// From now on what a child leaves behind becomes a child of this process.
inline void adoptOrphans() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

// Whether no child lives, once those that are dying are gone.
inline bool allChildrenEnd() {
    for (int tries = 0; tries < 3000; ++tries) {
        const pid_t child = waitpid(-1, nullptr, WNOHANG);
        if (child < 0 && errno == ECHILD) {
            return true;
        }
        if (child == 0) {
            usleep(1000);
        }
    }
    return false;
}

// Runs work in a child process; whether it returned true.
inline bool trueInChild(const std::function<bool()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// As trueInChild, on behalf of a user who may not write everywhere.
inline bool trueForOrdinaryUser(const std::function<bool()>& work) {
    constexpr uid_t kNobody = 65534;
    return trueInChild([&] { return (geteuid() != 0 || seteuid(kNobody) == 0) && work(); });
}

}  // namespace kavro_test
