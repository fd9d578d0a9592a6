// Watches and bends three things that code asks of the C library: to sleep, to start a thread, and to flush.
//
// A test that links `libc_spies` defines sleep, usleep, pthread_create, fsync and sync in its own executable; they
// record the call and pass it on, unless the test says otherwise. So a wait of minutes can be counted in seconds,
// a system that has no more threads is at hand, and what a power cut may not take is seen without one. May be used
// from any thread.
#pragma once

#include <pthread.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace spy {

struct Sleep {
    unsigned long microseconds = 0;
    std::string threadName;
};

class Sleeps {
  public:
    // Asked before each sleep, on the thread that is about to sleep: false leaves the sleep out. Empty for
    // none.
    using Hook = std::function<bool(const Sleep&)>;

    void onSleep(Hook newHook);
    // How many sleeps of that length the threads of that name began.
    unsigned long count(const std::string& threadName, unsigned long microseconds) const;
    unsigned long count(unsigned long microseconds) const;
    void clear();

    // Records; tells whether to sleep.
    bool begin(const Sleep& sleep);

  private:
    mutable std::mutex mutex;
    std::vector<Sleep> recorded;
    Hook hook;
};
Sleeps& sleeps();

constexpr unsigned long kSecond = 1000000;

// Decides over the next thread creations, one after the other: true lets one fail with EAGAIN. Those after
// the list succeed.
void failThreads(std::vector<bool> which);

// The thread that was created last: for a test that has to give up a thread which code leaves behind on purpose.
pthread_t lastThread();

// Told at each fsync, before it, the path of what is flushed, and at each sync kEverything. Empty for nobody.
void onFlush(std::function<void(const std::string& path)> hook);
inline const std::string kEverything = "everything";

// The name of the calling thread as /proc shows it.
std::string ownThreadName();

}  // namespace spy
