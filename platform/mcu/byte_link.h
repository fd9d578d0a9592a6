// The bytes to and from the microcontroller, whatever carries them: the SPI bus or a serial line of a device, the
// socket of an emulated microcontroller. Frames are made of the bytes elsewhere (frame.h); none of this knows about
// them.
//
// A link is used by one thread at a time, and blocks. Whoever uses it on a thread that can be cancelled holds
// cancellation off.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/mcu/frame.h"

namespace kavro {

class ByteLink {
  public:
    ByteLink() = default;
    virtual ~ByteLink() = default;
    ByteLink(const ByteLink&) = delete;
    ByteLink& operator=(const ByteLink&) = delete;

    // Sends all the bytes, waiting a bounded time for room. False, with the reason, when the link is broken.
    [[nodiscard]] virtual bool send(const Bytes& bytes, std::string& error) = 0;

    // Hands over what has arrived, waiting up to timeoutMs for the first byte of it: no bytes when nothing came
    // in that time; nothing at all, with the reason, when the link is broken. Zeros of an idle link may be left
    // out, but not the one that ends a frame.
    virtual std::optional<Bytes> receive(int timeoutMs, std::string& error) = 0;
};

// Where a link leads, as the device's configuration writes it.
struct LinkAddress {
    enum class Kind { kSpidev, kSerial, kUnix };
    Kind kind = Kind::kUnix;
    std::string path;
};

// Takes "spidev:/dev/spidevB.C", "serial:/dev/ttyN" or "unix:/PATH" apart. Nothing, with the reason, for anything else.
// Touches no file.
std::optional<LinkAddress> parseLinkAddress(const std::string& text, std::string& error);

// How long opening waits for another program to let go of the link.
inline constexpr int kLinkLockMs = 2000;

// Opens the link for this program alone: waits up to kLinkLockMs while another one has it. Null, with the reason
// and the address in it, when it stays in use, is not there, or nobody listens. The lock goes with the object, or
// with the process.
std::unique_ptr<ByteLink> openByteLink(const std::string& address, std::string& error);

}  // namespace kavro
