// Ctrl-C and its kin as a question that the main thread asks, instead of the end of the process.
#pragma once

#include <csignal>
#include <iterator>

namespace upgradectl {

// While one exists, SIGINT, SIGTERM and SIGHUP are only counted and SIGPIPE is ignored, so that neither an
// impatient user nor a lost terminal or reader ends a process that is flashing. A signal that was ignored
// before stays ignored (nohup). One at a time, on the main thread.
//
// The handler increments a counter and does nothing else: it may run on any thread, also on one of the
// library's that is being cancelled, where a mere write() would be a cancellation point.
class Interrupts {
  public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    // How many signals have come so far.
    int count() const;

  private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
    struct sigaction previous[std::size(kSignals)] = {};
};

}  // namespace upgradectl
