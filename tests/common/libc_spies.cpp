#include "tests/common/libc_spies.h"

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <utility>

#include "common/cancellation.h"
#include "common/export.h"

namespace spy {
namespace {

// Never destroyed: threads of the code under test sleep until the very end of the process.
template <typename T>
T& immortal() {
    static T* const object = new T;
    return *object;
}

struct ThreadCreations {
    std::mutex mutex;
    std::deque<bool> failing;
    pthread_t last = {};
};

bool nextThreadFails() {
    auto& creations = immortal<ThreadCreations>();
    const std::lock_guard<std::mutex> lock(creations.mutex);
    if (creations.failing.empty()) {
        return false;
    }
    const bool fails = creations.failing.front();
    creations.failing.pop_front();
    return fails;
}

void recordThread(pthread_t thread) {
    auto& creations = immortal<ThreadCreations>();
    const std::lock_guard<std::mutex> lock(creations.mutex);
    creations.last = thread;
}

// The function of that name that would have been called without this one.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void Sleeps::onSleep(Hook newHook) {
    const std::lock_guard<std::mutex> lock(mutex);
    hook = std::move(newHook);
}

unsigned long Sleeps::count(const std::string& threadName, unsigned long microseconds) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<unsigned long>(
        std::count_if(recorded.begin(), recorded.end(), [&](const Sleep& sleep) {
            return sleep.threadName == threadName && sleep.microseconds == microseconds;
        }));
}

unsigned long Sleeps::count(unsigned long microseconds) const {
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<unsigned long>(
        std::count_if(recorded.begin(), recorded.end(),
                      [&](const Sleep& sleep) { return sleep.microseconds == microseconds; }));
}

void Sleeps::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    recorded.clear();
}

bool Sleeps::begin(const Sleep& sleep) {
    Hook current;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(sleep);
        current = hook;
    }
    return !current || current(sleep);
}

Sleeps& sleeps() {
    return immortal<Sleeps>();
}

void failThreads(std::vector<bool> which) {
    auto& creations = immortal<ThreadCreations>();
    const std::lock_guard<std::mutex> lock(creations.mutex);
    creations.failing.assign(which.begin(), which.end());
}

namespace {

struct FlushHook {
    std::mutex mutex;
    std::function<void(const std::string& path)> tell;
};

void tellFlush(const std::string& path) {
    const COMMON_YR::CancelHold hold;
    std::function<void(const std::string& path)> tell;
    {
        auto& hook = immortal<FlushHook>();
        const std::lock_guard<std::mutex> lock(hook.mutex);
        tell = hook.tell;
    }
    if (tell) {
        tell(path);
    }
}

std::string pathOf(int descriptor) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error).string();
}

}  // namespace

void onFlush(std::function<void(const std::string& path)> hook) {
    auto& current = immortal<FlushHook>();
    const std::lock_guard<std::mutex> lock(current.mutex);
    current.tell = std::move(hook);
}

pthread_t lastThread() {
    auto& creations = immortal<ThreadCreations>();
    const std::lock_guard<std::mutex> lock(creations.mutex);
    return creations.last;
}

std::string ownThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

namespace {

// The record is made with cancellation held off; the sleep itself stays the cancellation point that it is.
bool recordSleep(unsigned long microseconds) {
    const COMMON_YR::CancelHold hold;
    return sleeps().begin({microseconds, ownThreadName()});
}

}  // namespace
}  // namespace spy

KAVRO_EXPORT unsigned sleep(unsigned seconds) {
    static auto* const original = spy::next<unsigned(unsigned)>("sleep");
    return spy::recordSleep(seconds * spy::kSecond) ? original(seconds) : 0;
}

KAVRO_EXPORT int usleep(useconds_t microseconds) {
    static auto* const original = spy::next<int(useconds_t)>("usleep");
    return spy::recordSleep(microseconds) ? original(microseconds) : 0;
}

KAVRO_EXPORT int fsync(int descriptor) {
    static auto* const original = spy::next<int(int)>("fsync");
    const int before = errno;
    spy::tellFlush(spy::pathOf(descriptor));
    errno = before;
    return original(descriptor);
}

KAVRO_EXPORT void sync() noexcept {
    static auto* const original = spy::next<void()>("sync");
    spy::tellFlush(spy::kEverything);
    original();
}

KAVRO_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                                void* argument) noexcept {
    using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const original = spy::next<Create>("pthread_create");
    if (spy::nextThreadFails()) {
        return EAGAIN;
    }
    const int result = original(thread, attributes, body, argument);
    if (result == 0) {
        spy::recordThread(*thread);
    }
    return result;
}
