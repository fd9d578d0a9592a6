// What the tests of package handling add to the fake services: the log as a list that can be compared as a
// whole, single calls that fail on demand, and threads and paths that give trouble.
#pragma once

#include <pthread.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace package_services {

// The logged lines in order, each as "LEVEL TEXT"; the number of the source line, wherever an error line
// repeats it, is written as '#'.
std::vector<std::string> logShape();
// Lines of that shape, to compare with. A message includes its line break.
std::string errorShape(const std::string& unit, const std::string& function, const std::string& message);
std::string stepErrorShape(const std::string& unit, const std::string& function);
std::string infoShape(const std::string& message);

// Until reset: COMMON_YR::readFileToBufferByOffset says that it read so many bytes.
void letReadsGive(long bytes);
// Until reset: mkdir(2) of that path reports success without making it.
void letMkdirLie(const std::string& path);
// The mode that mkdir(2) was last called with.
unsigned lastMkdirMode();
// Everything as at the start, the fake services and the shell recorder included.
void reset();

// Runs work on a thread of its own; a cancel may end it.
class CancellableThread {
  public:
    explicit CancellableThread(std::function<void()> threadWork);
    // The thread must have been joined.
    ~CancellableThread() = default;
    CancellableThread(const CancellableThread&) = delete;
    CancellableThread& operator=(const CancellableThread&) = delete;

    void cancel() { pthread_cancel(thread); }
    // Whether a cancel ended it.
    bool join();

  private:
    static void* run(void* self);

    std::function<void()> work;
    pthread_t thread{};
};

// What a process may leave behind when a thread of it is cancelled: children, other processes and descriptors.
class Stock {
  public:
    // Takes what there is now.
    Stock();
    // Fails the test when there is more.
    void expectNothingLeft() const;

  private:
    std::vector<int> processes;
    std::vector<std::string> descriptors;
};

std::chrono::microseconds durationOf(const std::function<void()>& work);

// From now on a command of that name starts another process and never ends; both keep running until killed.
void letCommandHang(const std::string& name);
// Waits until it has started.
void awaitHangingCommand();

// Paths that a shell or a command might take apart, below a directory; none of them exists.
std::vector<std::string> awkwardPaths(const std::string& directory);
// The same as relative paths, those that look like an option or a remote host among them.
std::vector<std::string> awkwardRelativePaths();
// A path of that many characters below a directory, whose parents are made.
std::string longPath(const std::string& directory, unsigned long length);

// Runs a command line; throws std::runtime_error when it fails.
void shell(const std::string& command);

}  // namespace package_services
