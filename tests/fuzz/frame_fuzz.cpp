// Frames on the link to the microcontroller. An input is what arrives on the wire, and once more the content of a message.

#include "platform/mcu/frame.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::Bytes;
using kavro::Frame;
using kavro::FrameReader;

// The one frame that the wire's bytes make, behind whatever the reader has had before.
bool arrives(FrameReader& reader, const Bytes& wire, const Frame& expected) {
    for (std::size_t index = 0; index < wire.size(); ++index) {
        const std::optional<Frame> frame = reader.take(wire[index]);
        if (frame.has_value() != (index + 1 == wire.size())) {
            return false;
        }
        if (frame && (frame->sequence != expected.sequence || frame->message != expected.message)) {
            return false;
        }
    }
    return true;
}

void requireFrame(const Frame& frame) {
    require(!frame.message.empty() && frame.message.size() <= kavro::kMaxMessageBytes,
            "a message has its length");
    const Bytes wire = kavro::encodeFrame(frame);
    for (std::size_t index = 0; index < wire.size(); ++index) {
        require((wire[index] == 0) == (index + 1 == wire.size()),
                "a zero is the end of a frame, and nothing else");
    }
    FrameReader reader;
    require(arrives(reader, wire, frame), "a frame arrives as it was sent");
    require(arrives(reader, wire, frame), "and once more behind the first");
    require(reader.damagedFrames() == 0, "no frame is thrown away");
}

// Whatever a reader has taken in: behind a zero it is ready for the next frame.
void requireReady(FrameReader& reader) {
    (void)reader.take(0);
    const Frame next = {7, {0x3E, 0x00}};
    require(arrives(reader, kavro::encodeFrame(next), next), "a frame arrives behind anything");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FrameReader reader;
    std::size_t ends = 0;
    std::size_t frames = 0;
    for (std::size_t index = 0; index < size; ++index) {
        ends += data[index] == 0 ? 1 : 0;
        if (const std::optional<Frame> frame = reader.take(data[index])) {
            requireFrame(*frame);
            ++frames;
        }
    }
    require(frames + reader.damagedFrames() <= ends, "only a zero ends a frame");
    requireReady(reader);

    if (size > 1 && size <= kavro::kMaxMessageBytes + 1) {
        requireFrame({data[0], Bytes(data + 1, data + size)});
    }
    return 0;
}
