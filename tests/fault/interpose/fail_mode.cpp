// The mode that lets one call fail, once. A call is known by what makes it and what it is about, and by which of these it
// is: that is the same in every run of a program, whatever its threads do in between.
//
//   KAVRO_FAULT_POINTS=FILE        the counters, shared by all programs of the run: a file of 128 KiB of zeros, made by
//                                  whoever starts them. Without it no call fails
//   KAVRO_FAULT_POINTS_RECORD=FILE each call is added to it, one line: PROGRAM CALL PATH ORDINAL BYTES, tabs in between
//   KAVRO_FAULT_FAIL=POINT         PROGRAM CALL PATH ORDINAL EFFECT, tabs in between: the call that fails, and how. The
//                                  line of that call in the record ends with EFFECT. With ORDINAL+ the later ones of
//                                  this kind fail too
//   KAVRO_FAULT_GATE=N FILE        the Nth of all calls waits at this FIFO: until somebody has opened it for reading, and
//                                  then until somebody has opened it for writing
//
// EFFECT is the name of an error, or `short` (half is written or read), `end` (a read finds the end); of a program as a
// whole (CALL is `program`) `exits` (at once, with 1), `exits_late` (with 1, when all is done), `killed` (at once).
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "tests/fault/interpose/interpose.h"

namespace fault {

namespace {

constexpr std::size_t kPoints = 8192;

struct Point {
    std::atomic<std::uint64_t> digest;  // of program, call and path; 0 is none
    std::atomic<std::uint64_t> calls;
};

struct Points {
    std::array<Point, kPoints> points;
};

struct EffectName {
    std::string_view name;
    Verdict verdict;
};

constexpr std::int64_t kHalf = 2;
const std::array kEffects = {
    EffectName{"EIO", {EIO, false, -1}},       EffectName{"ENOSPC", {ENOSPC, false, -1}},
    EffectName{"EMFILE", {EMFILE, false, -1}}, EffectName{"EINTR", {EINTR, false, -1}},
    EffectName{"ENOMEM", {ENOMEM, false, -1}}, EffectName{"EAGAIN", {EAGAIN, false, -1}},
    EffectName{"EBUSY", {EBUSY, false, -1}},   EffectName{"EACCES", {EACCES, false, -1}},
    EffectName{"ECHILD", {ECHILD, false, -1}}, EffectName{"ENOLCK", {ENOLCK, false, -1}},
    EffectName{"EXDEV", {EXDEV, false, -1}},   EffectName{"ECONNREFUSED", {ECONNREFUSED, false, -1}},
    EffectName{"EPIPE", {EPIPE, false, -1}},
};

// What is not a file of the device and yet of its programs' making.
constexpr std::array kOtherPaths = {
    "/tmp/", "/run/", "/var/lock/", "/dev/kavro-mcu/link", "/etc/fw_env.config", "/memfd:"};

bool isWatched(const char* path) {
    if (path[0] != '/') {
        return true;  // a call about something without a name: a program, a thread, a socket
    }
    if (isDevicePath(path)) {
        return true;
    }
    for (const char* prefix : kOtherPaths) {
        if (std::strncmp(path, prefix, std::strlen(prefix)) == 0) {
            return true;
        }
    }
    return false;
}

struct Mode {
    Points* points = nullptr;
    int record = -1;
    const char* fails = nullptr;
    std::uint64_t gateAt = 0;  // 0 for none
    const char* gate = nullptr;
    pid_t program = 0;
    bool endsBadly = false;
};

// The system is called directly: this is not to be intercepted.
Points* mapPoints(const char* path) {
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
    const long mapped =
        syscall(SYS_mmap, nullptr, sizeof(Points), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    syscall(SYS_close, file);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel tells an address as a number
    return mapped == -1 ? nullptr : reinterpret_cast<Points*>(mapped);
}

// Far from the descriptors that programs expect to get, and closed by nobody.
int openRecord(const char* path) {
    constexpr int kFarDescriptor = 901;
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const long far = syscall(SYS_fcntl, file, F_DUPFD_CLOEXEC, kFarDescriptor);
    syscall(SYS_close, file);
    return static_cast<int>(far);
}

void readGate(Mode& mode, const char* gate) {
    char* end = nullptr;
    mode.gateAt = std::strtoull(gate, &end, 10);
    mode.gate = *end == ' ' ? end + 1 : "";
}

Mode readMode() {
    Mode mode;
    const char* points = std::getenv("KAVRO_FAULT_POINTS");
    if (points == nullptr) {
        return mode;
    }
    mode.points = mapPoints(points);
    if (mode.points == nullptr) {
        std::fprintf(stderr, "KAVRO_FAULT_POINTS=%s: no counters\n", points);
        std::_Exit(126);
    }
    if (const char* record = std::getenv("KAVRO_FAULT_POINTS_RECORD")) {
        mode.record = openRecord(record);
    }
    mode.fails = std::getenv("KAVRO_FAULT_FAIL");
    if (const char* gate = std::getenv("KAVRO_FAULT_GATE")) {
        readGate(mode, gate);
    }
    mode.program = static_cast<pid_t>(syscall(SYS_getpid));
    return mode;
}

Mode& mode() {
    static Mode instance = readMode();
    return instance;
}

std::uint64_t digestOf(std::string_view text) {
    std::uint64_t digest = 0xcbf29ce484222325;
    for (const char byte : text) {
        digest = (digest ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    }
    return digest | 1;
}

// Which of the calls of this kind it is, from 1 on; 0 when the table is full.
std::uint64_t ordinalOf(Points& points, std::string_view kind) {
    const std::uint64_t digest = digestOf(kind);
    for (std::size_t i = 0; i < kPoints; ++i) {
        Point& point = points.points[(digest + i) % kPoints];
        std::uint64_t expected = 0;
        if (point.digest.compare_exchange_strong(expected, digest) || expected == digest) {
            return ++point.calls;
        }
    }
    return 0;
}

// The numbers in a name are those of a process or of an open file: another one each time.
void withoutNumbers(const char* path, char (&plain)[kPathBytes]) {
    if (std::strncmp(path, "socket:", 7) == 0 || std::strncmp(path, "pipe:", 5) == 0) {
        std::snprintf(plain, sizeof(plain), "%.*s", static_cast<int>(std::strchr(path, ':') - path), path);
        return;
    }
    std::snprintf(plain, sizeof(plain), "%s", path);
}

// The EFFECT when this call is one that fails, else "". `kind` is the point without its ordinal.
std::string_view effectOn(std::string_view kind, std::uint64_t ordinal) {
    const std::string_view fails = mode().fails == nullptr ? "" : mode().fails;
    if (fails.size() <= kind.size() || fails.substr(0, kind.size()) != kind || fails[kind.size()] != '\t') {
        return {};
    }
    char* end = nullptr;
    const std::uint64_t wanted = std::strtoull(fails.data() + kind.size() + 1, &end, 10);
    const bool andLater = *end == '+';
    const char* effect = end + (andLater ? 2 : 1);
    return ordinal == wanted || (andLater && ordinal > wanted) ? std::string_view(effect)
                                                               : std::string_view();
}

void record(std::string_view point, std::int64_t bytes, std::string_view effect) {
    char line[2 * kPathBytes];
    const int length =
        std::snprintf(line, sizeof(line), "%.*s\t%lld\t%.*s\n", static_cast<int>(point.size()), point.data(),
                      static_cast<long long>(bytes), static_cast<int>(effect.size()), effect.data());
    syscall(SYS_write, mode().record, line, length);
}

Verdict verdictOf(std::string_view effect, const Call& call) {
    for (const EffectName& known : kEffects) {
        if (known.name == effect) {
            return known.verdict;
        }
    }
    if (effect == "short") {
        return {0, false, call.bytes / kHalf};
    }
    if (effect == "end") {
        return {0, false, 0};
    }
    if (effect == "exits") {
        syscall(SYS_exit_group, 1);
    }
    if (effect == "killed") {
        syscall(SYS_kill, syscall(SYS_getpid), SIGKILL);
    }
    mode().endsBadly = effect == "exits_late";
    return {};
}

void meetAt(const char* gate, int flags) {
    const long file = syscall(SYS_openat, AT_FDCWD, gate, flags | O_CLOEXEC, 0);
    if (file >= 0) {
        syscall(SYS_close, file);
    }
}

void waitAtGate() {
    if (mode().gateAt != 0 && ordinalOf(*mode().points, "all calls") == mode().gateAt) {
        meetAt(mode().gate, O_WRONLY);
        meetAt(mode().gate, O_RDONLY);
    }
}

Verdict judged(const Call& call) {
    waitAtGate();
    char path[kPathBytes];
    withoutNumbers(call.path, path);
    char point[kPathBytes + 96];
    int length =
        std::snprintf(point, sizeof(point), "%s\t%s\t%s", program_invocation_short_name, call.name, path);
    const std::string_view kind(point, static_cast<std::size_t>(length));
    const std::uint64_t ordinal = ordinalOf(*mode().points, kind);
    const std::string_view effect = effectOn(kind, ordinal);
    length += std::snprintf(point + length, sizeof(point) - length, "\t%llu",
                            static_cast<unsigned long long>(ordinal));
    const std::string_view whole(point, static_cast<std::size_t>(length));
    if (mode().record >= 0 && (mode().fails == nullptr || !effect.empty())) {
        record(whole, call.bytes, effect);
    }
    return effect.empty() ? Verdict{} : verdictOf(effect, call);
}

// The program that is tested is none of those that it starts: a fault in it as a whole is a power cut.
__attribute__((constructor)) void beginProgram() {
    Call call;
    std::snprintf(call.name, sizeof(call.name), "program");
    (void)failVerdict(call);
}

// Not in what a shell has forked off: that is not the program.
__attribute__((destructor)) void endProgram() {
    if (mode().endsBadly && mode().program == static_cast<pid_t>(syscall(SYS_getpid))) {
        syscall(SYS_exit_group, 1);
    }
}

}  // namespace

Verdict failVerdict(const Call& call) {
    if (mode().points == nullptr || !isWatched(call.path)) {
        return {};
    }
    const int before = errno;
    const Verdict verdict = judged(call);
    errno = before;
    return verdict;
}

}  // namespace fault
