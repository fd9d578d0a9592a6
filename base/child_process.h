// A child process, with everything that it starts in a process group of its own.
#pragma once

#include <sys/types.h>

#include "common/cancellation.h"

namespace kavro {

// Owns the child until it is reaped. Needs a CancelHold around it.
class ChildProcess {
  public:
    ChildProcess() = default;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Kills a child that is not yet reaped, and its whole process group, and reaps it.
    ~ChildProcess();

    // Starts the program at path: standard input from /dev/null, standard output and error to `output`, as ours when it is negative, no signal
    // blocked or ignored. `script`, if not negative, becomes its descriptor kScriptDescriptor. Of our environment it
    // gets all but what would change what common programs do: the options of tar, the configuration of OpenSSL, files
    // that a shell reads.
    bool start(const char* path, const char* const arguments[], int script, int output);

    // Whether it still works, has ended, or was stopped by a signal, as one is that wants the terminal of another process group.
    // Does not wait, and does not reap it.
    enum class Progress { kRuns, kEnded, kStopped };
    Progress progress() const;

    // Waits for the end and reaps the child. A cancel of the thread may act while it waits. Returns whether
    // the child ended by itself with status 0; false too when the process ignores SIGCHLD, since the status
    // is lost then.
    bool succeeds(const COMMON_YR::CancelHold& hold);

    static constexpr int kScriptDescriptor = 3;

  private:
    bool reap();

    pid_t pid = 0;  // 0: none to reap
};

}  // namespace kavro
