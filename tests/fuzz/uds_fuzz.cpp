// The dialogue with the microcontroller. An input is a request and what comes over the link from then on:
//
//     n   request (n & 15 bytes, 1 at least)   answerBytes   { steps }
//
// where a step is a byte s that says what arrives next:
//
//     s & 7   0: nothing, in time    1: the link is broken    2: so many raw bytes as s >> 3 says
//             else: a frame with a message of s >> 3 bytes; 3 with another sequence number than the request's, 4 and more
//             with the right one; 5 begins with the right service, 6 is a refusal with the next byte as its code,
//             7 repeats the request as a positive response does

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/mcu/uds.h"
#include "platform/mcu/uds_client.h"
#include "tests/fuzz/fuzz.h"

// The pauses between two questions to a busy microcontroller.
extern "C" int usleep(useconds_t /*microseconds*/) {
    return 0;
}

namespace {

using fuzz::require;
using kavro::Bytes;
using kavro::Frame;
namespace uds = kavro::uds;

// What went over the link.
struct Dialogue {
    explicit Dialogue(fuzz::Input theInput) : input(theInput) {}

    fuzz::Input input;
    std::vector<Frame> requests;
    std::vector<Frame> answers;  // that were put on the link as whole frames
    bool broken = false;
};

class FuzzedLink : public kavro::ByteLink {
  public:
    explicit FuzzedLink(Dialogue& theDialogue) : dialogue(theDialogue) {}

    bool send(const Bytes& bytes, std::string& error) override {
        kavro::FrameReader reader;
        std::size_t frames = 0;
        for (const std::uint8_t byte : bytes) {
            if (const std::optional<Frame> frame = reader.take(byte)) {
                dialogue.requests.push_back(*frame);
                ++frames;
            }
        }
        require(frames == 1 && reader.damagedFrames() == 0 && bytes.front() == 0,
                "a request is one frame behind a zero");
        if (dialogue.broken) {
            error = "broken";
        }
        return !dialogue.broken;
    }

    std::optional<Bytes> receive(int timeoutMs, std::string& error) override {
        require(timeoutMs >= 0 && timeoutMs <= kavro::kPendingMs, "waiting has a limit");
        if (dialogue.requests.empty() || dialogue.input.empty()) {
            return Bytes();
        }
        const std::uint8_t step = dialogue.input.byte();
        const std::size_t count = step >> 3;
        switch (step & 7) {
            case 0:
                return Bytes();
            case 1:
                dialogue.broken = true;
                error = "broken";
                return std::nullopt;
            case 2:
                return taken(count);
            default:
                return frameOf(step & 7, count);
        }
    }

  private:
    Bytes taken(std::size_t count) {
        const std::string bytes = dialogue.input.bytes(count);
        return {bytes.begin(), bytes.end()};
    }

    Bytes frameOf(int kind, std::size_t count) {
        const Frame& request = dialogue.requests.back();
        Frame frame = {request.sequence, {}};
        const auto positive = static_cast<std::uint8_t>(request.message[0] + uds::kPositiveResponse);
        if (kind == 3) {
            frame.sequence ^= 1;
        } else if (kind == 5) {
            frame.message = {positive};
        } else if (kind == 6) {
            frame.message = {uds::kNegativeResponse, request.message[0], dialogue.input.byte()};
            count = 0;
        } else if (kind == 7) {
            frame.message = request.message;
            frame.message[0] = positive;
        }
        const Bytes more = taken(count);
        frame.message.insert(frame.message.end(), more.begin(), more.end());
        if (frame.message.empty()) {
            frame.message = {0};
        }
        dialogue.answers.push_back(frame);
        return kavro::encodeFrame(frame);
    }

    Dialogue& dialogue;
};

void requireRequests(const Dialogue& dialogue, const Bytes& request) {
    const Bytes present = {uds::kTesterPresent, uds::kZeroSubFunction};
    constexpr std::size_t kMostOfOne = std::size_t{kavro::kMaxTries} * std::size_t{kavro::kMaxBusy + 1};
    require(dialogue.requests.size() <= 2 * kMostOfOne, "the tries have a limit");
    for (const Frame& sent : dialogue.requests) {
        require(sent.message == present || sent.message == request, "nothing else is asked");
        require(sent.sequence != 0 || sent.message == present, "number 0 only begins a conversation");
    }
}

// Noise may be a whole frame too, when the input has found the right checksum.
bool wasAnswered(const Dialogue& dialogue, const Bytes& message) {
    return std::any_of(dialogue.answers.begin(), dialogue.answers.end(), [&](const Frame& frame) {
        return frame.message == message && frame.sequence == dialogue.requests.back().sequence;
    });
}

void requireAnswer(const kavro::UdsAnswer& answer, const Dialogue& dialogue, const Bytes& request,
                   std::size_t answerBytes) {
    if (!answer.ok()) {
        require(answer.message.empty(), "a failure hands out no message");
        return;
    }
    require(answer.refusal == 0 && dialogue.requests.back().message == request, "the request was answered");
    require(answer.message.size() >= std::max<std::size_t>(answerBytes, 1), "an answer has its length");
    require(answer.message[0] == static_cast<std::uint8_t>(request[0] + uds::kPositiveResponse),
            "an answer is that of the service");
    require(wasAnswered(dialogue, answer.message), "an answer has arrived, with the request's number");
}

void requireNames(std::uint8_t code) {
    require(!uds::serviceName(code).empty() && !uds::negativeResponseName(code).empty(),
            "every code has a name");
    Bytes number;
    uds::appendUint32(number, code * 0x01020304U);
    uds::appendUint16(number, static_cast<std::uint16_t>(code * 0x0101));
    require(uds::uint32At(number, 0) == code * 0x01020304U && uds::uint16At(number, 4) == code * 0x0101,
            "a number reads as it was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string text = input.bytes(std::max<std::size_t>(1, input.byte() & 15));
    const std::size_t answerBytes = input.byte() & 15;
    if (text.empty()) {
        return 0;
    }
    // A service above that has no positive response.
    Bytes request(text.begin(), text.end());
    request[0] &= 0xBF;
    requireNames(request[0]);

    Dialogue dialogue(input);
    kavro::UdsClient client(std::make_unique<FuzzedLink>(dialogue));
    const kavro::UdsAnswer answer = client.ask(request, answerBytes);
    requireRequests(dialogue, request);
    requireAnswer(answer, dialogue, request, answerBytes);

    dialogue.requests.clear();
    client.leave({uds::kEcuReset, uds::kHardReset});
    require(dialogue.requests.size() <= 1, "a last request is sent once");
    return 0;
}
