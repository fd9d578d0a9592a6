#include "tests/support/fake_services.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>

#include "common/flash_driver.h"
#include "common/message_node.h"
#include "common/utility.h"

namespace fake {
namespace {

std::atomic<unsigned long> nextOrder{1};

// Records are never destroyed: the library under test calls its services until the very end of the process.
template <typename T>
T& immortal() {
    static T* const object = new T;
    return *object;
}

int nullDevice() {
    static const int descriptor = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return descriptor;
}

// Opened before any test counts descriptors.
[[maybe_unused]] const int kOpenedEarly = nullDevice();

void cancellationPoint() {
    const ssize_t written = write(nullDevice(), "", 1);
    (void)written;
}

bool cancelEnabled() {
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    pthread_setcancelstate(state, nullptr);
    return state == PTHREAD_CANCEL_ENABLE;
}

std::string threadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

const char* boolText(bool value) {
    return value ? "true" : "false";
}

std::string onWhichNode(const void* handle) {
    return handle == node().handle() ? std::string() : std::string(" on another node");
}

testing::AssertionResult failure(const std::string& what) {
    return testing::AssertionFailure() << what << "\nLogged:\n" << log().dump();
}

std::string described(int level, const std::string& text) {
    return "level " + std::to_string(level) + " " + testing::PrintToString(text);
}

std::string errorPrefix(const std::string& unit, const std::string& function) {
    return "file:" + unit + ", func:" + function + " line:";
}

// The number of the error lines with that message, which is made anew from each line's own number.
unsigned long countErrorLines(const std::string& unit, const std::string& function, int line,
                              const std::function<std::string(const std::string&)>& message) {
    const std::string prefix = errorPrefix(unit, function);
    unsigned long found = 0;
    for (const std::string& text : log().linesAtLevel(1)) {
        if (text.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        const unsigned long end = text.find_first_not_of("0123456789", prefix.size());
        if (end == std::string::npos || end == prefix.size()) {
            continue;
        }
        const std::string number = text.substr(prefix.size(), end - prefix.size());
        const bool rightLine = line == kAnyLine || number == std::to_string(line);
        found += rightLine && text.substr(end) == " " + message(number) ? 1 : 0;
    }
    return found;
}

std::string describedError(const std::string& unit, const std::string& function, int line,
                           const std::string& message) {
    const std::string number = line == kAnyLine ? "N" : std::to_string(line);
    return described(1, errorPrefix(unit, function) + number + " " + message);
}

}  // namespace

void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << described(line.level, line.text) << " [" << line.threadName << "]";
}

std::vector<LogLine> Log::lines() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

std::vector<std::string> Log::linesAtLevel(int level) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> texts;
    for (const LogLine& line : recorded) {
        if (line.level == level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

unsigned long Log::count(int level, const std::string& text) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = std::count_if(recorded.begin(), recorded.end(), [&](const LogLine& line) {
        return line.level == level && line.text == text;
    });
    return static_cast<unsigned long>(found);
}

bool Log::contains(const std::string& part) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return std::any_of(recorded.begin(), recorded.end(),
                       [&](const LogLine& line) { return line.text.find(part) != std::string::npos; });
}

std::string Log::dump() const {
    std::string all;
    for (const LogLine& line : lines()) {
        all += "  " + described(line.level, line.text) + " [" + line.threadName + "]\n";
    }
    return all.empty() ? "  (nothing)\n" : all;
}

void Log::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

bool Log::waitFor(int level, const std::string& text, int timeoutMs) const {
    constexpr int kStepMs = 2;
    for (int waited = 0; waited < timeoutMs; waited += kStepMs) {
        if (has(level, text)) {
            return true;
        }
        usleep(kStepMs * 1000);
    }
    return has(level, text);
}

void Log::onLine(std::function<void(const LogLine&)> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    lineHook = std::move(hook);
}

void Log::add(LogLine line) {
    std::function<void(const LogLine&)> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        line.order = nextOrder++;
        recorded.push_back(line);
        hook = lineHook;
    }
    if (hook) {
        hook(line);
    }
}

Log& log() {
    return immortal<Log>();
}

std::ostream& operator<<(std::ostream& out, const Log& log) {
    return out << log.dump();
}

testing::AssertionResult logged(int level, const std::string& text) {
    return log().has(level, text) ? testing::AssertionSuccess() << "logged: " << described(level, text)
                                  : failure("not logged: " + described(level, text));
}

testing::AssertionResult loggedTimes(unsigned long times, int level, const std::string& text) {
    const unsigned long found = log().count(level, text);
    if (found == times) {
        return testing::AssertionSuccess();
    }
    return failure("logged " + std::to_string(found) + " times instead of " + std::to_string(times) + ": " +
                   described(level, text));
}

testing::AssertionResult notLogged(int level, const std::string& text) {
    return loggedTimes(0, level, text);
}

testing::AssertionResult nothingLogged() {
    return log().lines().empty() ? testing::AssertionSuccess() : failure("something was logged");
}

testing::AssertionResult nothingLoggedAtLevel(int level) {
    return log().linesAtLevel(level).empty()
               ? testing::AssertionSuccess()
               : failure("something was logged at level " + std::to_string(level));
}

testing::AssertionResult nothingLoggedWhileCancellable() {
    for (const LogLine& line : log().lines()) {
        if (line.cancelEnabled) {
            return testing::AssertionFailure()
                   << "logged while it could be cancelled: " << testing::PrintToString(line);
        }
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult nothingPublishedWhileCancellable() {
    for (const Message& message : node().messages()) {
        if (message.cancelEnabled) {
            return testing::AssertionFailure() << "published while it could be cancelled: state "
                                               << message.word(3) << " [" << message.threadName << "]";
        }
    }
    return testing::AssertionSuccess();
}

unsigned long countErrors(const std::string& unit, const std::string& function, const std::string& message,
                          int line) {
    return countErrorLines(unit, function, line, [&](const std::string&) { return message; });
}

unsigned long countStepErrors(const std::string& unit, const std::string& function, int line) {
    return countErrorLines(unit, function, line, [&](const std::string& number) {
        return unit + " " + function + " " + number + " error!!!\n";
    });
}

testing::AssertionResult loggedError(const std::string& unit, const std::string& function,
                                     const std::string& message, int line) {
    return countErrors(unit, function, message, line) != 0
               ? testing::AssertionSuccess() << "logged: " << describedError(unit, function, line, message)
               : failure("not logged: " + describedError(unit, function, line, message));
}

testing::AssertionResult loggedStepError(const std::string& unit, const std::string& function, int line) {
    const std::string number = line == kAnyLine ? "N" : std::to_string(line);
    const std::string message = unit + " " + function + " " + number + " error!!!\n";
    return countStepErrors(unit, function, line) != 0
               ? testing::AssertionSuccess() << "logged: " << describedError(unit, function, line, message)
               : failure("not logged: " + describedError(unit, function, line, message));
}

std::int32_t Message::word(unsigned index) const {
    std::uint32_t value = 0;
    for (unsigned i = 4; i-- > 0;) {
        value = value << 8U | bytes.at(index * 4 + i);
    }
    return static_cast<std::int32_t>(value);
}

void* Node::handle() const {
    static int target = 0;
    return isNull ? nullptr : &target;
}

std::vector<Message> Node::messages() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

std::vector<std::int32_t> Node::states() const {
    constexpr unsigned kStateWord = 3;
    std::vector<std::int32_t> states;
    for (const Message& message : messages()) {
        states.push_back(message.word(kStateWord));
    }
    return states;
}

unsigned long Node::count() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recorded.size();
}

void Node::onPublish(std::function<void(const Message&)> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    publishHook = std::move(hook);
}

void Node::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

void Node::add(Message message) {
    std::function<void(const Message&)> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        message.order = nextOrder++;
        recorded.push_back(message);
        hook = publishHook;
    }
    if (hook) {
        hook(message);
    }
}

Node& node() {
    return immortal<Node>();
}

namespace {

struct Services {
    Driver mpu;
    Driver mcu;
    Operation<bool> spi{0};
    Operation<> mcuVersion{-1};
    Operation<> reboot{0};
};

void resetDriver(Driver& driver) {
    driver.ready = true;
    driver.initSetsReady = false;
    driver.init.returns(0);
    driver.preUpgrade.returns(0);
    driver.upgrade.returns(0);
    driver.postUpgrade.returns(0);
    driver.activate.returns(0);
}

}  // namespace

Driver& mpu() {
    return immortal<Services>().mpu;
}
Driver& mcu() {
    return immortal<Services>().mcu;
}
Operation<bool>& spi() {
    return immortal<Services>().spi;
}
Operation<>& mcuVersion() {
    return immortal<Services>().mcuVersion;
}
Operation<>& reboot() {
    return immortal<Services>().reboot;
}

std::vector<std::string> Calls::texts() const {
    return textsOf("");
}

std::vector<std::string> Calls::textsOf(const std::string& prefix) const {
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> texts;
    for (const Call& call : recorded) {
        if (call.text.compare(0, prefix.size(), prefix) == 0) {
            texts.push_back(call.text);
        }
    }
    return texts;
}

std::vector<Call> Calls::all() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

unsigned long Calls::count(const std::string& text) const {
    const std::vector<std::string> recordedTexts = texts();
    return static_cast<unsigned long>(std::count(recordedTexts.begin(), recordedTexts.end(), text));
}

void Calls::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

void Calls::mirrorTo(const std::string& path) {
    const std::lock_guard<std::mutex> lock(mutex);
    mirror = path;
}

void Calls::add(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.push_back({text, threadName(), nextOrder++});
    if (mirror.empty()) {
        return;
    }
    if (FILE* file = fopen(mirror.c_str(), "ae")) {
        fprintf(file, "%s\n", text.c_str());
        fclose(file);
    }
}

Calls& calls() {
    return immortal<Calls>();
}

void reset() {
    log().onLine({});
    log().clear();
    node().onPublish({});
    node().setNull(false);
    node().clear();
    calls().mirrorTo({});
    calls().clear();
    resetDriver(mpu());
    resetDriver(mcu());
    spi().returns(0);
    mcuVersion().returns(-1);
    reboot().returns(0);
}

}  // namespace fake

// The services themselves, as the library under test sees them.

void printLog(int level, const char* format, ...) {
    fake::cancellationPoint();
    fake::LogLine line;
    line.level = level;
    line.threadName = fake::threadName();
    line.cancelEnabled = fake::cancelEnabled();
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    line.text.resize(static_cast<unsigned long>(std::max(length, 0)));
    vsnprintf(line.text.data(), line.text.size() + 1, format, again);
    va_end(again);
    fake::log().add(std::move(line));
}

void* getVelNode(int domain, const char* name, int queue, int flags, int timeoutMs) {
    fake::calls().add("getVelNode(" + std::to_string(domain) + ", " + name + ", " + std::to_string(queue) +
                      ", " + std::to_string(flags) + ", " + std::to_string(timeoutMs) + ")");
    return fake::node().handle();
}

int velPublishMsg(void* node, const void* message) {
    fake::cancellationPoint();
    fake::Message record;
    std::memcpy(record.bytes.data(), message, record.bytes.size());
    record.handle = node;
    record.threadName = fake::threadName();
    record.cancelEnabled = fake::cancelEnabled();
    fake::node().add(record);
    return node == nullptr ? -1 : 0;
}

void velDestroyNode(void** node) {
    fake::calls().add("velDestroyNode()" + fake::onWhichNode(*node));
    fake::node().markDestroyed();
    *node = nullptr;
}

int velSpiDevCtrl(void* node, bool on) {
    fake::calls().add(std::string("spi(") + fake::boolText(on) + ")" + fake::onWhichNode(node));
    return fake::spi().call(on);
}

int velGetMcuVersion(void* node) {
    fake::calls().add("mcuVersion()" + fake::onWhichNode(node));
    return fake::mcuVersion().call();
}

int UPGRADE_request_reboot() {
    fake::calls().add("reboot()");
    return fake::reboot().call();
}

namespace fake {
namespace {

void recordPreUpgrade(const std::string& driver, const std::string& path, bool withLoader,
                      bool mainProcessor) {
    calls().add(driver + ".preUpgrade(" + path + ", " + boolText(withLoader) + ", " +
                boolText(mainProcessor) + ")");
}

void recordActivate(const std::string& driver, bool on) {
    calls().add(driver + ".activate(" + boolText(on) + ")");
}

}  // namespace
}  // namespace fake

struct UpgradeMpu::Impl {};

UpgradeMpu::UpgradeMpu() : impl(std::make_unique<Impl>()) {
    initOk = fake::mpu().ready;
    fake::calls().add("mpu()");
}

UpgradeMpu::~UpgradeMpu() {
    fake::calls().add("~mpu()");
}

int UpgradeMpu::init() {
    fake::calls().add("mpu.init()");
    initOk = initOk || fake::mpu().initSetsReady;
    return fake::mpu().init.call();
}

int UpgradeMpu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    fake::recordPreUpgrade("mpu", path, withLoader, mainProcessor);
    return fake::mpu().preUpgrade.call(path, withLoader, mainProcessor);
}

int UpgradeMpu::upgrade() {
    fake::calls().add("mpu.upgrade()");
    return fake::mpu().upgrade.call();
}

int UpgradeMpu::postUpgrade() {
    fake::calls().add("mpu.postUpgrade()");
    return fake::mpu().postUpgrade.call();
}

int UpgradeMpu::activate(bool on) {
    fake::recordActivate("mpu", on);
    return fake::mpu().activate.call(on);
}

struct UpgradeMcu::Impl {};

UpgradeMcu::UpgradeMcu() : impl(std::make_unique<Impl>()) {
    initOk = fake::mcu().ready;
    fake::calls().add("mcu()");
}

UpgradeMcu::~UpgradeMcu() {
    fake::calls().add("~mcu()");
}

int UpgradeMcu::init() {
    fake::calls().add("mcu.init()");
    initOk = initOk || fake::mcu().initSetsReady;
    return fake::mcu().init.call();
}

int UpgradeMcu::preUpgrade(std::string path, bool withLoader, bool mainProcessor) {
    fake::recordPreUpgrade("mcu", path, withLoader, mainProcessor);
    return fake::mcu().preUpgrade.call(path, withLoader, mainProcessor);
}

int UpgradeMcu::upgrade() {
    fake::calls().add("mcu.upgrade()");
    return fake::mcu().upgrade.call();
}

int UpgradeMcu::postUpgrade() {
    fake::calls().add("mcu.postUpgrade()");
    return fake::mcu().postUpgrade.call();
}

int UpgradeMcu::activate(bool on) {
    fake::recordActivate("mcu", on);
    return fake::mcu().activate.call(on);
}
