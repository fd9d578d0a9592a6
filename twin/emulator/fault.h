// Faults that the emulated microcontroller shows on demand, so that what they lead to can be tried.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "twin/emulator/microcontroller.h"

namespace kavro::emulator {

enum class FaultKind {
    kDrop,       // the request is not heard
    kLose,       // it is carried out, its answer is not sent
    kDamage,     // a bit of its answer's frame is flipped
    kDelay,      // its answer is late by `value` milliseconds
    kBusy,       // it is answered with busyRepeatRequest and not carried out
    kPending,    // `value` response-pending messages come before its answer
    kRefuse,     // it is answered with the negative response code `value` and not carried out
    kPowerLoss,  // of its block one half is written, then the power is gone
    kCorrupt,    // its block is written with one wrong bit
};

struct Fault {
    FaultKind kind = FaultKind::kDrop;
    std::optional<std::uint8_t> service;  // only requests of this service are counted; else all
    std::size_t first = 1;                // from this request on, counted from 1 since power on
    std::size_t last = 1;                 // up to this one
    std::uint32_t value = 0;
};

// Reads KIND[@SERVICE]=FIRST[..[LAST]][:VALUE]. Nothing, and what is wrong with it, for anything else.
std::optional<Fault> parseFault(const std::string& text, std::string& error);

// What parseFault() understands, for the help: a line for each kind.
std::string faultKindsText();

// What happens to one request.
struct Fate {
    bool drop = false;
    bool lose = false;
    bool damage = false;
    Milliseconds delay{0};
    unsigned pending = 0;
    std::optional<std::uint8_t> refusal;  // a negative response code
};

// All faults of one microcontroller, with the counting. power-loss and corrupt count blocks that are written,
// busy and refuse requests that would be carried out, all others requests as they arrive, repeated ones too.
class FaultPlan {
  public:
    explicit FaultPlan(std::vector<Fault> faultList) : faults(std::move(faultList)) {}

    // Counts a request and tells what happens to it. One that was answered before is repeated: it cannot be
    // refused any more.
    Fate nextRequest(std::uint8_t service, bool repeated = false);
    // Counts a block and tells what happens to it.
    BlockFault nextBlock();

  private:
    struct Count {
        std::size_t arrived = 0;
        std::size_t carriedOut = 0;
    };
    [[nodiscard]] bool strikes(const Fault& fault, std::uint8_t service, bool repeated) const;

    std::vector<Fault> faults;
    Count requests;
    std::map<std::uint8_t, Count> requestsOf;
    std::size_t blocks = 0;
};

}  // namespace kavro::emulator
