// What the programs of a device and whoever gives them faults share: a mapped file.
//
// Each state-changing call takes a number from one counter. While the board is `watched`, a call waits in one of the
// slots until the watcher lets it go:
//
//     program: kFree -> kTaken, fills the slot, -> kAsks, rings     watcher: -> kGoes
//     program: makes the call, -> kFree
#pragma once

#include <atomic>
#include <cstdint>

namespace fault {

constexpr std::uint32_t kBoardMagic = 0x4b425232;
constexpr std::size_t kPathBytes = 200;

// What a call is about to do. Absolute paths; of a descriptor the path that it was opened by, as the kernel knows it.
struct Call {
    char name[24] = {};          // as the C library has it
    char path[kPathBytes] = {};  // what it changes
    char from[kPathBytes] = {};  // of what it makes it: the source of a rename or a link, else empty
    std::int64_t bytes = -1;     // of a write, else -1
};

struct Slot {
    enum State : std::uint32_t { kFree, kTaken, kAsks, kGoes };

    std::atomic<std::uint32_t> state;  // also what the program sleeps on
    std::int32_t process;              // as the device knows it
    std::uint64_t number;              // of the call, from 1 on
    char program[16];
    Call call;
};

struct Board {
    std::uint32_t magic;
    std::atomic<std::uint32_t> watched;
    std::atomic<std::uint32_t> rings;  // counts the questions: what the watcher sleeps on
    std::atomic<std::uint64_t> calls;
    Slot slots[32];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "it is shared between processes");

}  // namespace fault
