// Holding off thread cancellation while something is half done.
//
// A give-up ends the upgrade worker by a deferred pthread_cancel, which unwinds its stack. Nearly every libc
// call that blocks is a cancellation point, and one that acts inside a destructor or a noexcept function ends
// the process. So whatever touches a file, a lock, a log or a child process holds cancellation off for its
// whole length and opens it only where nothing is half done.
//
// On a thread that is never cancelled all of this costs two cheap calls and changes nothing.
#pragma once

#include <pthread.h>

namespace COMMON_YR {

// Holds cancellation off from construction to destruction. Declare it before the resources it protects, so
// that they are released while it still holds. Holds nest: only the outermost one can be opened.
class CancelHold {
  public:
    CancelHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); }
    ~CancelHold() { pthread_setcancelstate(previous, nullptr); }
    CancelHold(const CancelHold&) = delete;
    CancelHold& operator=(const CancelHold&) = delete;

    // Lets a pending cancel act here, provided that the caller of the holding function allowed it.
    void checkpoint() const {
        pthread_setcancelstate(previous, nullptr);
        pthread_testcancel();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }

  private:
    friend class CancelWindow;
    int previous = PTHREAD_CANCEL_ENABLE;
};

// Reopens a hold for one blocking call that leaves nothing behind when it is cut short (a sleep, a wait that
// does not reap). The call inside must not be in a destructor or a noexcept function.
class CancelWindow {
  public:
    // Opens the hold, if it is the outermost one.
    explicit CancelWindow(const CancelHold& hold) { pthread_setcancelstate(hold.previous, nullptr); }
    ~CancelWindow() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
    CancelWindow(const CancelWindow&) = delete;
    CancelWindow& operator=(const CancelWindow&) = delete;
};

// Lets the stop() of a UserThreadBase cut short one blocking call of its thread's body, such as a sleep between two
// rounds. The call must leave nothing behind; what threadFunc() has on its stack is unwound.
class StopWindow {
  public:
    StopWindow() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous); }
    ~StopWindow() { pthread_setcancelstate(previous, nullptr); }
    StopWindow(const StopWindow&) = delete;
    StopWindow& operator=(const StopWindow&) = delete;

  private:
    int previous = PTHREAD_CANCEL_DISABLE;
};

}  // namespace COMMON_YR
