// The base class of every thread object of the upgrade manager. Implemented by libcommon_yr.so.
#pragma once

#include <memory>
#include <string>

#include "common/export.h"

namespace COMMON_YR {

// A thread that runs threadFunc() of a derived class, once or again and again.
//
// The object may be started and stopped from any thread, and started again after a stop. The thread holds cancellation
// off, but where its body opens a StopWindow (common/cancellation.h). A derived class must call stop() in its own
// destructor if its thread may still be running then, since the thread calls virtual functions of the object.
class KAVRO_EXPORT UserThreadBase {
  public:
    // The name is "baseThread" until a derived class sets another, the stack 256 KiB, the scheduling
    // inherited.
    UserThreadBase();
    // Calls stop(kStopWaitMs). Deliberately not virtual: a class that is deleted through a base declares its
    // own.
    ~UserThreadBase();
    UserThreadBase(const UserThreadBase&) = delete;
    UserThreadBase& operator=(const UserThreadBase&) = delete;

    // Runs on the new thread before the first threadFunc(). A negative result skips it and ends the thread.
    virtual int initFunc();
    // Runs on the new thread after the last threadFunc(), provided that initFunc() succeeded. Throws nothing.
    virtual int deinitFunc();
    // The body. In a thread that repeats, a negative result ends the repetition.
    virtual int threadFunc();
    // Asks the repetition to end and waits for the thread, at most waitMs milliseconds (a negative value waits without
    // limit). A body that waits in a StopWindow is unwound from there. One that is still running in the end is left to
    // end on its own; until it has, isRunning() stays true and the object must stay alive. From the thread itself it
    // only asks. Without a thread it does nothing.
    virtual void stop(int waitMs);

    // Starts the thread: repeat -1 runs threadFunc() until stopped, a positive number that many times.
    // Returns false when the thread could not be created, is still running, or repeat is 0 or below -1.
    bool start(int repeat);

    // Whether the thread is between its start and the end of its last function. Sequentially consistent.
    bool isRunning() const;

    // The thread's name as /proc shows it, of which the kernel keeps 15 bytes. Takes effect at the next
    // start.
    void setName(std::string threadName);
    // The whole name as it was set.
    const std::string& getName() const;

    static constexpr int kStopWaitMs = 1050;  // how long a destructor waits for its thread

  protected:
    std::string name;         // of the thread, from its next start on
    unsigned long stackSize;  // bytes
    int priority;             // -1: inherited from the starting thread

  private:
    struct Control;  // shared with the running thread, so that it never looks at a destroyed object
    std::shared_ptr<Control> control;
};

}  // namespace COMMON_YR
