// How far a run is, for other processes: a small file on a file system that does not outlive a restart.
//
//     /run/kavro/run.json     {"percent":42,"pid":1234,"stage":"FLASHING_START","state":"INPROGRESS_MPU"}
//
// It is replaced whole, and locked by the process that makes the run for as long as it says something new: what a killed
// process has left there is not locked, and counts for nothing. The lock tells that in another PID name space, too, where
// the number of a process tells nothing.
#pragma once

#include <optional>
#include <string>

#include "agent/run.h"
#include "base/file_descriptor.h"

namespace kavro::agent {

// What the file says, in the library's names.
struct PublishedRun {
    int pid = 0;  // of the process that makes it, as that process sees itself
    std::string stage;
    std::string state;
    int percent = 0;
};

// Tells others of one run, until its end. Where that is not possible they know nothing of it; the run does not suffer.
class RunPublisher {
  public:
    RunPublisher() = default;
    // Removes the file.
    ~RunPublisher();
    RunPublisher(const RunPublisher&) = delete;
    RunPublisher& operator=(const RunPublisher&) = delete;

    // Replaces the file if it would say something else.
    void publish(const RunStatus& status);

  private:
    FileDescriptor file;  // the last one, locked
    RunStatus last;
    bool isTried = false;
};

// That of a run which goes on; nothing when there is none, or when it is not told.
std::optional<PublishedRun> readPublishedRun();

}  // namespace kavro::agent
