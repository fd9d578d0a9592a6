// Frames on the byte link to the microcontroller: how a message keeps its borders, and how damage is noticed.
//
//     00 .. 00 | COBS( sequence number | message | CRC-32 ) | 00
//
// Consistent overhead byte stuffing takes every zero out of a frame, so that a zero can only be the end of one.
// Zeros between frames mean nothing: they are what an idle SPI bus carries. The CRC-32 (that of zlib and
// Ethernet, least significant byte first) covers the sequence number and the message.
//
// An answer carries its request's sequence number. A request that is sent again after its answer was lost keeps
// its number, and the receiver repeats the answer without carrying it out twice. Number 0 begins a conversation:
// it is never taken for a repetition. After 255 comes 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kavro {

using Bytes = std::vector<std::uint8_t>;

// The longest message that a frame carries; longer frames are thrown away by the receiver.
inline constexpr std::size_t kMaxMessageBytes = 4096;

struct Frame {
    std::uint8_t sequence = 0;
    Bytes message;  // 1 to kMaxMessageBytes bytes
};

// The bytes for the wire, the ending zero included.
Bytes encodeFrame(const Frame& frame);

// Puts frames together from bytes as they arrive.
class FrameReader {
  public:
    // Takes the next byte. Returns the frame that it ends; nothing while a frame is incomplete, for an idle zero
    // and for a frame that is damaged, which is counted and thrown away.
    std::optional<Frame> take(std::uint8_t byte);

    // How many frames were thrown away so far.
    [[nodiscard]] std::size_t damagedFrames() const { return damaged; }

  private:
    Bytes stuffed;         // of the frame that arrives, as it is on the wire
    bool tooLong = false;  // it is: what is left of it is skipped
    std::size_t damaged = 0;
};

}  // namespace kavro
