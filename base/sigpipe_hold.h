// Turns the signal of a write to a pipe or FIFO without reader into the error EPIPE, whatever the host
// process does with SIGPIPE.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cerrno>

namespace kavro {

// Covers one write on the calling thread. errno is kept. Needs a CancelHold around it.
class SigpipeHold {
  public:
    SigpipeHold() {
        sigemptyset(&brokenPipe);
        sigaddset(&brokenPipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        foreign = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &brokenPipe, &previous);
    }

    ~SigpipeHold() {
        const int kept = errno;
        if (!foreign) {
            const timespec noWait = {0, 0};
            while (sigtimedwait(&brokenPipe, nullptr, &noWait) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        errno = kept;
    }

    SigpipeHold(const SigpipeHold&) = delete;
    SigpipeHold& operator=(const SigpipeHold&) = delete;

  private:
    sigset_t brokenPipe = {};
    sigset_t previous = {};
    bool foreign = false;  // one was pending before, and is not ours to take away
};

}  // namespace kavro
