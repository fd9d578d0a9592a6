#include "tests/fault/interpose/interpose.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fault {

namespace {

// What a restart of the device keeps, and what it does not keep but the run depends on. The log is neither.
constexpr std::array kDevicePaths = {"/config/",    "/firmware/",       "/raw/",
                                     "/etc/kavro/", "/dev/loop",        "/dev/disk/by-partlabel/",
                                     "/tmp/pubkey", "/tmp/upgrade.cfg", "/dev/kavro-mcu/link"};
constexpr std::array kDeviceDirectories = {"/config", "/firmware", "/raw", "/etc/kavro"};

// The system is called directly: these are neither to be intercepted nor points of cancellation.
long futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
    return syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), operation, value, nullptr, nullptr, 0);
}

struct Setup {
    Board* board = nullptr;
    int record = -1;
    const char* swallowed = nullptr;
};

Board* mapBoard(const char* path) {
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
    if (file < 0) {
        return nullptr;
    }
    void* mapped =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
    syscall(SYS_close, file);
    auto* board = mapped == MAP_FAILED ? nullptr : static_cast<Board*>(mapped);
    return board != nullptr && board->magic == kBoardMagic ? board : nullptr;
}

// Far from the descriptors that programs expect to get.
int openRecord(const char* path) {
    constexpr int kFarDescriptor = 900;
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file < 0) {
        return -1;
    }
    const long far = syscall(SYS_fcntl, file, F_DUPFD_CLOEXEC, kFarDescriptor);
    syscall(SYS_close, file);
    return static_cast<int>(far);
}

// A program that was to be watched and is not would make a suite that tries nothing: it ends instead.
Setup readSetup() {
    Setup setup;
    if (const char* path = std::getenv("KAVRO_FAULT_BOARD")) {
        setup.board = mapBoard(path);
        if (setup.board == nullptr) {
            std::fprintf(stderr, "KAVRO_FAULT_BOARD=%s: no board\n", path);
            std::_Exit(126);
        }
    }
    if (const char* path = std::getenv("KAVRO_FAULT_RECORD")) {
        setup.record = openRecord(path);
    }
    setup.swallowed = std::getenv("KAVRO_FAULT_SWALLOW");
    return setup;
}

const Setup& setup() {
    static const Setup instance = readSetup();
    return instance;
}

// At the load of the program, while it has one thread.
__attribute__((constructor)) void start() {
    (void)setup();
}

void record(const Call& call, std::uint64_t number) {
    char line[2 * kPathBytes + 128];
    const int length = std::snprintf(line, sizeof(line), "%llu\t%s\t%s\t%s\t%lld\t%s\n",
                                     static_cast<unsigned long long>(number), program_invocation_short_name,
                                     call.name, call.path, static_cast<long long>(call.bytes), call.from);
    syscall(SYS_write, setup().record, line, length);
}

bool isSwallowed(const char* name) {
    const char* list = setup().swallowed;
    const std::size_t length = std::strlen(name);
    for (const char* found = list; found != nullptr && (found = std::strstr(found, name)) != nullptr;
         ++found) {
        const bool begins = found == list || found[-1] == ',';
        if (begins && (found[length] == ',' || found[length] == '\0')) {
            return true;
        }
    }
    return false;
}

Slot& takeSlot(Board& board) {
    for (;;) {
        for (Slot& slot : board.slots) {
            std::uint32_t expected = Slot::kFree;
            if (slot.state.compare_exchange_strong(expected, Slot::kTaken)) {
                return slot;
            }
        }
        syscall(SYS_sched_yield);
    }
}

void awaitTurn(Board& board, const Call& call, std::uint64_t number) {
    Slot& slot = takeSlot(board);
    slot.process = static_cast<std::int32_t>(syscall(SYS_getpid));
    slot.number = number;
    std::snprintf(slot.program, sizeof(slot.program), "%s", program_invocation_short_name);
    slot.call = call;
    slot.state = Slot::kAsks;
    ++board.rings;
    futex(board.rings, FUTEX_WAKE, INT_MAX);
    while (slot.state == Slot::kAsks) {
        futex(slot.state, FUTEX_WAIT, Slot::kAsks);
    }
    slot.state = Slot::kFree;
}

}  // namespace

bool isDevicePath(const char* path) {
    for (const char* prefix : kDevicePaths) {
        if (std::strncmp(path, prefix, std::strlen(prefix)) == 0) {
            return std::strcmp(path, "/dev/kavro-mcu/link.lock") != 0;
        }
    }
    for (const char* directory : kDeviceDirectories) {
        if (std::strcmp(path, directory) == 0) {
            return true;
        }
    }
    return false;
}

Verdict decide(const Call& call) {
    Board* board = setup().board;
    if (board == nullptr || !isDevicePath(call.path)) {
        return failVerdict(call);
    }
    const int before = errno;
    const std::uint64_t number = ++board->calls;
    if (setup().record >= 0) {
        record(call, number);
    }
    if (board->watched != 0) {
        awaitTurn(*board, call, number);
    }
    Verdict verdict = failVerdict(call);
    verdict.swallowed = verdict.swallowed || isSwallowed(call.name);
    errno = before;
    return verdict;
}

}  // namespace fault
