// What the main thread of the example camera_app waits for: command lines on standard input, SIGINT and SIGTERM, and
// the end of a run.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

enum class Event { kNothing, kCommand, kSignal, kRunOver };

class EventInput {
  public:
    // Signals are taken by a handler: the library has a thread before main() begins, so blocking them in the main
    // thread would only send them there.
    EventInput() {
        struct sigaction action = {};
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }

    // Waits for the next event, waitMs at most (-1: without limit). command receives the line of a kCommand.
    Event next(int waitMs, std::string& command) {
        if (takeLine(command)) {
            return Event::kCommand;
        }
        pollfd inputs[] = {
            {isOpen ? STDIN_FILENO : -1, POLLIN, 0}, {signalled, POLLIN, 0}, {runOver, POLLIN, 0}};
        if (poll(inputs, 3, waitMs) <= 0) {
            return Event::kNothing;
        }
        if (inputs[1].revents != 0) {
            return take(signalled, Event::kSignal);
        }
        if (inputs[2].revents != 0) {
            return take(runOver, Event::kRunOver);
        }
        readText();
        return takeLine(command) ? Event::kCommand : Event::kNothing;
    }

    // Whether commands may still come.
    bool expectsCommands() const { return isOpen; }

    // To be called by the thread of a run when it has done its work.
    void tellRunOver() { eventfd_write(runOver, 1); }

  private:
    static void onSignal(int) {
        const int kept = errno;
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(signalled, &one, sizeof(one));
        errno = kept;
    }

    static Event take(int counter, Event event) {
        eventfd_t count = 0;
        eventfd_read(counter, &count);
        return event;
    }

    void readText() {
        char text[4096];
        const ssize_t count = read(STDIN_FILENO, text, sizeof(text));
        isOpen = count > 0;
        received.append(text, isOpen ? static_cast<size_t>(count) : 0);
    }

    bool takeLine(std::string& line) {
        const size_t end = received.find('\n');
        if (end == std::string::npos) {
            return false;
        }
        line = received.substr(0, end);
        received.erase(0, end + 1);
        return true;
    }

    static inline const int signalled = eventfd(0, EFD_CLOEXEC);
    const int runOver = eventfd(0, EFD_CLOEXEC);
    bool isOpen = true;
    std::string received;  // and not yet taken
};
