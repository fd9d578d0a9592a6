// The microcontroller's end of the link: between frames and requests. Sees to it that a request which is sent
// again is not carried out again, shows the faults and writes the log.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/mcu/frame.h"
#include "twin/emulator/fault.h"
#include "twin/emulator/microcontroller.h"

namespace kavro::emulator {

// From one response-pending to the next, and to the answer.
inline constexpr Milliseconds kPendingSpacing{300};

// Bytes for the wire.
struct Output {
    Bytes bytes;
    Time due;
};

class LinkEnd {
  public:
    using Tell = std::function<void(const std::string& line)>;

    // All three outlive it.
    LinkEnd(Microcontroller& device, FaultPlan& faultPlan, Tell tellLine);

    // Takes a frame that has arrived. Returns what is to be sent, in the order of time; often one answer, or
    // nothing. Until the last of it is due the microcontroller does not listen: the next frame is handed in
    // afterwards.
    std::vector<Output> take(const Frame& frame, Time now);

  private:
    struct Answered {
        std::uint8_t sequence = 0;
        Bytes answer;
    };

    Bytes carryOut(const Frame& frame, const Fate& fate, Time now);
    std::vector<Output> send(const Frame& frame, const Bytes& answer, const Fate& fate, Time now);

    Microcontroller& microcontroller;
    FaultPlan& faults;
    const Tell tell;
    unsigned seenStarts = 0;
    std::optional<Answered> last;  // request since the start
};

}  // namespace kavro::emulator
