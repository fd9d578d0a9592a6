// Makes time pass faster, for a program and all that it starts:
//
//   KAVRO_CLOCK_SPEED=20 LD_PRELOAD=build/release/tests/fault/libkavro_short_clock.so PROGRAM
//
// The clocks show it, and all that waits for a time ends so much earlier: what the device does in an hour it does
// here in three minutes, in the same order. Only the limits get tighter for work that takes real time, as reading
// a file does: on a busy machine choose a lower speed. Who waits for another program, by a descriptor, has some real time
// for it whatever the speed. The times of files stay real, and so do the timers that send a
// signal (alarm, `timeout`): those are limits of whoever runs the program. std::future::wait_for is not covered, for
// it asks the kernel without a function in between. It does not mix with the sanitizers, which have wrappers of
// their own.
//
// The wrappers of cancellation points are cancellation points, and let an unwinding through.

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#define KAVRO_WRAPPER extern "C" __attribute__((visibility("default")))

namespace {

using Nanoseconds = std::int64_t;

constexpr Nanoseconds kSecond = 1000000000;
constexpr Nanoseconds kMillisecond = 1000000;
constexpr Nanoseconds kMicrosecond = 1000;

constexpr const char* kSpeedName = "KAVRO_CLOCK_SPEED";
constexpr long kDefaultSpeed = 20;
constexpr long kMaxSpeed = 1000;

// When the first of the programs started, so that all of them have the same time.
constexpr const char* kBeginName = "KAVRO_CLOCK_BEGIN";

// The C library's function, which the wrapper of that name hides.
template <typename Function>
Function* real(Function* /*ofThisType*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define KAVRO_REAL(name)                                    \
    [] {                                                    \
        static auto* const function = real(&(name), #name); \
        return function;                                    \
    }()

Nanoseconds fromTimespec(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

timespec toTimespec(Nanoseconds time) {
    return {time / kSecond, time % kSecond};
}

Nanoseconds realNow(clockid_t clock) {
    timespec now{};
    KAVRO_REAL(clock_gettime)(clock, &now);
    return fromTimespec(now);
}

struct Clock {
    Clock() {
        const char* wanted = std::getenv(kSpeedName);
        if (wanted != nullptr) {
            speed = std::strtol(wanted, nullptr, 10);
        }
        if (speed < 1 || speed > kMaxSpeed) {
            std::fprintf(stderr, "%s=%s: not a number from 1 to %ld\n", kSpeedName, wanted, kMaxSpeed);
            std::_Exit(2);
        }
        const char* given = std::getenv(kBeginName);
        begin = given != nullptr ? std::strtoll(given, nullptr, 10) : realNow(CLOCK_MONOTONIC);
        if (given == nullptr) {
            char text[32];
            std::snprintf(text, sizeof(text), "%lld", static_cast<long long>(begin));
            setenv(kBeginName, text, 1);
        }
    }

    // How far all clocks have run ahead of the real ones.
    Nanoseconds lead() const { return (speed - 1) * (realNow(CLOCK_MONOTONIC) - begin); }

    long speed = kDefaultSpeed;
    Nanoseconds begin = 0;
};

const Clock& shortClock() {
    static const Clock clock;
    return clock;
}

// At the load of the program, while it has one thread.
__attribute__((constructor)) void start() {
    shortClock();
}

bool isShortened(clockid_t clock) {
    switch (clock) {
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_BOOTTIME:
        case CLOCK_TAI:
            return true;
        default:
            return false;
    }
}

// Rounded up: a pause never becomes none, and who waits for a time finds it come.
Nanoseconds shortened(Nanoseconds pause) {
    const long speed = shortClock().speed;
    return pause <= 0 ? pause : (pause + speed - 1) / speed;
}

timespec shortened(const timespec& pause) {
    return toTimespec(shortened(fromTimespec(pause)));
}

// The real time at which that one has come. What is no valid time stays as it is, for the C library to refuse.
timespec shortenedDeadline(clockid_t clock, const timespec& deadline) {
    constexpr time_t kBeyondAll = INT32_MAX;
    if (deadline.tv_nsec < 0 || deadline.tv_nsec >= kSecond || deadline.tv_sec < 0) {
        return deadline;
    }
    const Nanoseconds now = realNow(clock);
    const time_t seconds = deadline.tv_sec < kBeyondAll ? deadline.tv_sec : kBeyondAll;
    const Nanoseconds wanted = fromTimespec({seconds, deadline.tv_nsec});
    const Nanoseconds left = wanted - (now + shortClock().lead());
    return left <= 0 ? toTimespec(now) : toTimespec(now + shortened(left));
}

// By which clock a condition waits is known to the C library only; but the two are half a century apart.
clockid_t clockOf(const timespec& deadline) {
    constexpr time_t kTenYears = 315360000;
    return deadline.tv_sec < kTenYears ? CLOCK_MONOTONIC : CLOCK_REALTIME;
}

// For an answer: what is at the other end of a descriptor takes its real time, too. The usual limit of an answer stays as
// it is, so that on a busy machine none is missed that would have been in time.
Nanoseconds shortenedWait(Nanoseconds wait) {
    constexpr Nanoseconds kEnoughToAnswer = 500 * kMillisecond;
    const Nanoseconds least = wait < kEnoughToAnswer ? wait : kEnoughToAnswer;
    const Nanoseconds brief = shortened(wait);
    return brief > least ? brief : least;
}

// How long to wait for descriptors, which may be for ever: null, or less than zero milliseconds. Without descriptors it
// is a pause.
class Patience {
  public:
    Patience(const timespec* wait, bool isPause) : endless(wait == nullptr) {
        set(endless ? 0 : fromTimespec(*wait), isPause);
    }
    Patience(int milliseconds, bool isPause) : endless(milliseconds < 0) {
        set(endless ? 0 : milliseconds * kMillisecond, isPause);
    }
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;

    timespec* get() { return endless ? nullptr : &value; }

  private:
    void set(Nanoseconds wait, bool isPause) {
        value = toTimespec(isPause ? shortened(wait) : shortenedWait(wait));
    }

    const bool endless;
    timespec value{};
};

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// The clocks
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = KAVRO_REAL(clock_gettime)(clock, now);
    if (result == 0 && isShortened(clock)) {
        *now = toTimespec(fromTimespec(*now) + shortClock().lead());
    }
    return result;
}

KAVRO_WRAPPER int gettimeofday(timeval* now, void* zone) noexcept {
    const int result = KAVRO_REAL(gettimeofday)(now, zone);
    if (result == 0) {
        const Nanoseconds shown = now->tv_sec * kSecond + now->tv_usec * kMicrosecond + shortClock().lead();
        *now = {shown / kSecond, shown % kSecond / kMicrosecond};
    }
    return result;
}

KAVRO_WRAPPER time_t time(time_t* now) noexcept {
    const time_t shown = (realNow(CLOCK_REALTIME) + shortClock().lead()) / kSecond;
    if (now != nullptr) {
        *now = shown;
    }
    return shown;
}

// ---------------------------------------------------------------------------------------------------------------------
// Pauses
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int nanosleep(const timespec* pause, timespec* left) {
    const timespec brief = shortened(*pause);
    const int result = KAVRO_REAL(nanosleep)(&brief, left);
    if (result != 0 && errno == EINTR && left != nullptr) {
        *left = toTimespec(fromTimespec(*left) * shortClock().speed);
    }
    return result;
}

KAVRO_WRAPPER int clock_nanosleep(clockid_t clock, int flags, const timespec* pause, timespec* left) {
    if (!isShortened(clock)) {
        return KAVRO_REAL(clock_nanosleep)(clock, flags, pause, left);
    }
    const bool isDeadline = (flags & TIMER_ABSTIME) != 0;
    const timespec brief = isDeadline ? shortenedDeadline(clock, *pause) : shortened(*pause);
    const int result = KAVRO_REAL(clock_nanosleep)(clock, flags, &brief, left);
    if (result == EINTR && !isDeadline && left != nullptr) {
        *left = toTimespec(fromTimespec(*left) * shortClock().speed);
    }
    return result;
}

KAVRO_WRAPPER unsigned sleep(unsigned seconds) {
    timespec left{};
    const timespec pause{seconds, 0};
    return nanosleep(&pause, &left) == 0
               ? 0
               : static_cast<unsigned>((fromTimespec(left) + kSecond - 1) / kSecond);
}

KAVRO_WRAPPER int usleep(useconds_t microseconds) {
    const timespec pause = toTimespec(microseconds * kMicrosecond);
    return nanosleep(&pause, nullptr);
}

// ---------------------------------------------------------------------------------------------------------------------
// Waits for conditions, semaphores and locks
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                         const timespec* deadline) {
    const timespec brief = shortenedDeadline(clockOf(*deadline), *deadline);
    return KAVRO_REAL(pthread_cond_timedwait)(condition, mutex, &brief);
}

KAVRO_WRAPPER int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                         const timespec* deadline) {
    const timespec brief = shortenedDeadline(clock, *deadline);
    return KAVRO_REAL(pthread_cond_clockwait)(condition, mutex, clock, &brief);
}

KAVRO_WRAPPER int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
    const timespec brief = shortenedDeadline(CLOCK_REALTIME, *deadline);
    return KAVRO_REAL(sem_timedwait)(semaphore, &brief);
}

KAVRO_WRAPPER int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
    const timespec brief = shortenedDeadline(clock, *deadline);
    return KAVRO_REAL(sem_clockwait)(semaphore, clock, &brief);
}

KAVRO_WRAPPER int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline) noexcept {
    const timespec brief = shortenedDeadline(CLOCK_REALTIME, *deadline);
    return KAVRO_REAL(pthread_mutex_timedlock)(mutex, &brief);
}

KAVRO_WRAPPER int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                          const timespec* deadline) noexcept {
    const timespec brief = shortenedDeadline(clock, *deadline);
    return KAVRO_REAL(pthread_mutex_clocklock)(mutex, clock, &brief);
}

KAVRO_WRAPPER int pthread_timedjoin_np(pthread_t thread, void** result, const timespec* deadline) {
    const timespec brief = shortenedDeadline(CLOCK_REALTIME, *deadline);
    return KAVRO_REAL(pthread_timedjoin_np)(thread, result, &brief);
}

// ---------------------------------------------------------------------------------------------------------------------
// Waits for descriptors
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int ppoll(pollfd* descriptors, nfds_t count, const timespec* atMost, const sigset_t* mask) {
    Patience brief(atMost, count == 0);
    return KAVRO_REAL(ppoll)(descriptors, count, brief.get(), mask);
}

KAVRO_WRAPPER int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
    Patience brief(milliseconds, count == 0);
    return KAVRO_REAL(ppoll)(descriptors, count, brief.get(), nullptr);
}

KAVRO_WRAPPER int pselect(int count, fd_set* toRead, fd_set* toWrite, fd_set* toExcept,
                          const timespec* atMost, const sigset_t* mask) {
    Patience brief(atMost, count == 0);
    return KAVRO_REAL(pselect)(count, toRead, toWrite, toExcept, brief.get(), mask);
}

// What is left of the time is not told: nobody may rely on it.
KAVRO_WRAPPER int select(int count, fd_set* toRead, fd_set* toWrite, fd_set* toExcept, timeval* atMost) {
    if (atMost == nullptr) {
        return KAVRO_REAL(select)(count, toRead, toWrite, toExcept, nullptr);
    }
    const timespec wait{atMost->tv_sec, atMost->tv_usec * kMicrosecond};
    return pselect(count, toRead, toWrite, toExcept, &wait, nullptr);
}

// Of whole milliseconds: the finer call is not there on every kernel.
KAVRO_WRAPPER int epoll_pwait(int poller, epoll_event* events, int count, int milliseconds,
                              const sigset_t* mask) {
    const Nanoseconds brief = shortenedWait(milliseconds * kMillisecond);
    const int rounded = static_cast<int>((brief + kMillisecond - 1) / kMillisecond);
    return KAVRO_REAL(epoll_pwait)(poller, events, count, milliseconds < 0 ? milliseconds : rounded, mask);
}

KAVRO_WRAPPER int epoll_wait(int poller, epoll_event* events, int count, int milliseconds) {
    return epoll_pwait(poller, events, count, milliseconds, nullptr);
}
