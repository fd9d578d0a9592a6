// What the tests of the upgrade run, its bookkeeping, activation and rollback share: the device before a run,
// an order of what the run did, and the state of the process around a run.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

namespace runtest {

inline constexpr const char* kUnit = "upgrade/upgrade_api";
inline constexpr const char* kInputPackage = "/tmp/package.pkg";
inline constexpr const char* kMarker = "/config/upgraded";
inline constexpr const char* kLastRuntime = "/config/upgrade_last_runtime";
inline constexpr const char* kFactoryVersions = "/etc/kavro/version.json";

// What the device has installed (the twin's factory versions), and a package that differs in all but hw.
inline constexpr L_VERSION_T kInstalled{1, 104, 7, 2};
inline constexpr L_VERSION_T kNewer{1, 105, 8, 3};

// The line that publishing stage and state logs.
std::string publishedLine(const std::string& stage, const std::string& state);
std::string removedLine(const std::string& path, int code);
std::string copiedLine(const std::string& from, const std::string& to);

// A valid package of these versions. The larger its root file system, the longer it is copied, digested and
// unpacked.
testsupport::TestPackage packageOf(const L_VERSION_T& version, unsigned long rootFsBytes = 65536);
void writePackage(const std::string& path, const L_VERSION_T& version = kNewer,
                  unsigned long rootFsBytes = 65536);

// Bytes that do not compress and differ from seed to seed.
std::string noise(unsigned long bytes, unsigned seed = 1);

// Puts a program in front of the real one for every command that is started from now on.
void shadowCommand(const std::string& name, const std::string& script);

// An empty device with the factory versions, fakes as at the start, and a controller that exists.
class UpgradeRun : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override { fake::reset(); }

    static UpgradeProc& proc() { return *UpgradeProc::getInstance(); }
};

// What was logged and published, by thread and in order.
class Recorder {
  public:
    struct Event {
        pid_t thread = 0;
        bool isMessage = false;
        int level = 0;     // of a line
        std::string text;  // of a line: the whole text; of a message: "publish STATE"
        bool cancelEnabled = false;
        unsigned long order = 0;
    };

    using Observer = std::function<void(const Event&)>;

    // Takes the hooks of log and node. The observer is called inside the log or publish call, on its thread
    // and without a lock.
    explicit Recorder(Observer eventObserver = {});
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    std::vector<Event> all() const;
    // "LEVEL TEXT" for a line without its line break, "publish STATE" for a message.
    std::vector<std::string> ofThread(pid_t thread) const;
    std::vector<std::string> messagesOfThread(pid_t thread) const;
    // Of the thread that logged the copy of the package, or tried to; 0 when none did.
    pid_t worker() const;
    // Of the thread that publishes without ever logging; 0 when there is none.
    pid_t republisher() const;

  private:
    void add(Event event);

    const Observer observer;
    mutable std::mutex mutex;
    std::vector<Event> events;
};

// What a run may not leave behind in its process, taken before it and compared after it.
class ProcessState {
  public:
    ProcessState();
    // Fails the test for every process, thread and descriptor that is there now and was not before.
    void expectUnchanged() const;

  private:
    std::vector<int> pids;
    std::vector<std::string> descriptors;
    unsigned long threads;
};

// Every field of a run has its initial value.
void expectFieldsReset(const UpgradeProc& proc);

double nowMs();

}  // namespace runtest
