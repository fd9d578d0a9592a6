// Fakes of the device's services: log, message node, link to the microcontroller, flash drivers, reset
// request.
//
// A test that links `fake_services` defines these services in its own executable, where they take the place
// of those of the platform's libraries. Every call is recorded; what a service does is set by the test. All
// of it may be used from any thread. Records carry a number (order) that grows over all of them, so that a
// line, a message and a driver call can be put in order.
//
// printLog and velPublishMsg write to /dev/null first, and so are cancellation points on purpose: code that
// logs or publishes while it can be cancelled ends there at once, instead of once in a thousand runs.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace fake {

// One call of printLog.
struct LogLine {
    int level = 0;
    std::string text;
    std::string threadName;
    bool cancelEnabled = false;  // whether the calling thread could have been cancelled inside printLog
    unsigned long order = 0;
};
void PrintTo(const LogLine& line, std::ostream* out);
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// The recorder behind printLog.
class Log {
  public:
    std::vector<LogLine> lines() const;
    std::vector<std::string> linesAtLevel(int level) const;
    // Whole text, line break included.
    bool has(int level, const std::string& text) const { return count(level, text) != 0; }
    unsigned long count(int level, const std::string& text) const;
    // Any line that contains the text, at any level.
    bool contains(const std::string& part) const;
    // All lines, one per row, for the message of a failed check.
    std::string dump() const;
    void clear();

    // Waits for a line; false when it did not come in time.
    bool waitFor(int level, const std::string& text, int timeoutMs = 20000) const;

    // Called at the end of every printLog, on the caller's thread and without a lock. Empty for none.
    void onLine(std::function<void(const LogLine&)> hook);

    void add(LogLine line);

  private:
    mutable std::mutex mutex;
    std::vector<LogLine> recorded;
    std::function<void(const LogLine&)> lineHook;
};
Log& log();
std::ostream& operator<<(std::ostream& out, const Log& log);

// For EXPECT_TRUE(fake::logged(1, "...\n")): on failure the message shows every line that was logged.
testing::AssertionResult logged(int level, const std::string& text);
testing::AssertionResult loggedTimes(unsigned long times, int level, const std::string& text);
testing::AssertionResult notLogged(int level, const std::string& text);
testing::AssertionResult nothingLogged();
testing::AssertionResult nothingLoggedAtLevel(int level);

constexpr int kAnyLine = -1;  // any source line number

// The error lines, at level 1: "file:UNIT, func:FUNCTION line:N MESSAGE". message includes its line break, if
// any.
testing::AssertionResult loggedError(const std::string& unit, const std::string& function,
                                     const std::string& message, int line = kAnyLine);
// "file:UNIT, func:FUNCTION line:N UNIT FUNCTION N error!!!\n", both N being the same number.
testing::AssertionResult loggedStepError(const std::string& unit, const std::string& function,
                                         int line = kAnyLine);
// No line was logged and no message published by a thread that could have been cancelled meanwhile. For the
// threads that can be: the main thread of a test counts among them.
testing::AssertionResult nothingLoggedWhileCancellable();
testing::AssertionResult nothingPublishedWhileCancellable();

// How many error lines of that shape there are.
unsigned long countErrors(const std::string& unit, const std::string& function, const std::string& message,
                          int line = kAnyLine);
unsigned long countStepErrors(const std::string& unit, const std::string& function, int line = kAnyLine);

// One published message.
struct Message {
    std::array<unsigned char, 16> bytes{};
    void* handle = nullptr;
    std::string threadName;
    bool cancelEnabled = false;
    unsigned long order = 0;

    // One of its four little-endian words.
    std::int32_t word(unsigned index) const;
};

// The message node.
class Node {
  public:
    // The handle that getVelNode gives: null, or one that is not null (the default).
    void setNull(bool null) { isNull = null; }
    void* handle() const;
    std::vector<Message> messages() const;
    // The last words of all messages, in order.
    std::vector<std::int32_t> states() const;
    unsigned long count() const;
    bool destroyed() const { return isDestroyed; }
    // Called at the end of every velPublishMsg, on the caller's thread and without a lock. Empty for none.
    void onPublish(std::function<void(const Message&)> hook);
    void clear();

    void add(Message message);
    void markDestroyed() { isDestroyed = true; }

  private:
    mutable std::mutex mutex;
    std::vector<Message> recorded;
    std::function<void(const Message&)> publishHook;
    std::atomic<bool> isNull{false};
    std::atomic<bool> isDestroyed{false};
};
Node& node();

// What one operation of a service answers: a fixed result, or whatever a function gives.
template <typename... Args>
class Operation {
  public:
    using Function = std::function<int(Args...)>;

    explicit Operation(int result) : fixed(result) {}
    void returns(int result) { set(result, {}); }
    void runs(Function function) { set(0, std::move(function)); }

    int call(Args... args) const {
        Function function;
        int result = 0;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            function = hook;
            result = fixed;
        }
        return function ? function(args...) : result;
    }

  private:
    void set(int result, Function function) {
        const std::lock_guard<std::mutex> lock(mutex);
        fixed = result;
        hook = std::move(function);
    }

    mutable std::mutex mutex;
    int fixed;
    Function hook;
};

// A flash driver. Everything succeeds until a test says otherwise.
struct Driver {
    // Whether the constructor says that the driver is usable, and whether init() does so itself.
    std::atomic<bool> ready{true};
    std::atomic<bool> initSetsReady{false};
    Operation<> init{0};
    Operation<const std::string&, bool, bool> preUpgrade{0};
    Operation<> upgrade{0};
    Operation<> postUpgrade{0};
    Operation<bool> activate{0};
};
Driver& mpu();
Driver& mcu();

// velSpiDevCtrl (0), velGetMcuVersion (-1: cannot be read) and UPGRADE_request_reboot (0).
Operation<bool>& spi();
Operation<>& mcuVersion();
Operation<>& reboot();

// One call of a driver, the link or the node other than publishing, e.g. "mcu.preUpgrade(/raw/upgrade, true,
// false)".
struct Call {
    std::string text;
    std::string threadName;
    unsigned long order = 0;
};

// The texts are: "mpu()", "mpu.init()", "mpu.preUpgrade(PATH, BOOL, BOOL)", "mpu.upgrade()",
// "mpu.postUpgrade()", "mpu.activate(BOOL)", "~mpu()", the same for mcu, "spi(BOOL)", "mcuVersion()",
// "reboot()", "getVelNode(258, upgrade, 0, 0, 2000)", "velDestroyNode()". Calls that are given another node
// handle than the one handed out (null, if null was) end in " on another node".
class Calls {
  public:
    std::vector<std::string> texts() const;
    // Those that begin with prefix: "mcu." for the operations of the microcontroller's driver.
    std::vector<std::string> textsOf(const std::string& prefix) const;
    std::vector<Call> all() const;
    unsigned long count(const std::string& text) const;
    void clear();
    // Also appends every later call as a line to that file: what is called at the end of a process can be
    // read after it. Empty for none.
    void mirrorTo(const std::string& path);

    void add(const std::string& text);

  private:
    mutable std::mutex mutex;
    std::vector<Call> recorded;
    std::string mirror;
};
Calls& calls();

// All records gone, every service as at the start. Call it while nothing is going on.
void reset();

}  // namespace fake
