#include "twin/emulator/link_end.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/mcu/uds.h"

namespace kavro::emulator {
namespace {

constexpr std::uint8_t kFirstOfConversation = 0;
constexpr std::uint8_t kFlippedBit = 0x04;
constexpr std::size_t kShownBytes = 16;

std::string hexByte(std::uint8_t byte) {
    char text[4];
    std::snprintf(text, sizeof text, " %02X", byte);
    return text;
}

// The first bytes, which tell what it is about.
std::string shown(const Bytes& message) {
    std::string text;
    for (std::size_t index = 0; index < std::min(message.size(), kShownBytes); ++index) {
        text += hexByte(message[index]);
    }
    if (message.size() > kShownBytes) {
        text += " .. (" + std::to_string(message.size()) + " bytes)";
    }
    return text;
}

std::string line(const char* what, const Frame& frame, const std::string& text) {
    return std::string(what) + " " + std::to_string(frame.sequence) + " " +
           uds::serviceName(frame.message[0]) + ":" + text;
}

std::string answerText(const Bytes& answer) {
    if (answer.size() == uds::kNegativeResponseBytes && answer[0] == uds::kNegativeResponse) {
        return " " + uds::negativeResponseName(answer[2]) + " (" + shown(answer).substr(1) + ")";
    }
    return shown(answer);
}

Bytes negativeResponse(const Frame& frame, std::uint8_t code) {
    return {uds::kNegativeResponse, frame.message[0], code};
}

}  // namespace

LinkEnd::LinkEnd(Microcontroller& device, FaultPlan& faultPlan, Tell tellLine)
    : microcontroller(device), faults(faultPlan), tell(std::move(tellLine)), seenStarts(device.starts()) {}

std::vector<Output> LinkEnd::take(const Frame& frame, Time now) {
    if (microcontroller.powerLost()) {
        return {};
    }
    microcontroller.advance(now);
    if (microcontroller.starts() != std::exchange(seenStarts, microcontroller.starts())) {
        last.reset();
    }
    if (!microcontroller.hears(now)) {
        tell(line("unheard", frame, shown(frame.message) + " [it starts]"));
        return {};
    }
    const bool repeated = last && frame.sequence == last->sequence && frame.sequence != kFirstOfConversation;
    const Fate fate = faults.nextRequest(frame.message[0], repeated);
    if (fate.drop) {
        tell(line("unheard", frame, shown(frame.message) + " [fault: drop]"));
        return {};
    }
    if (repeated) {
        tell(line("request", frame, " again"));
        const Bytes answer = last->answer;
        return send(frame, answer, fate, now);
    }
    tell(line("request", frame, shown(frame.message)));
    const Bytes answer = carryOut(frame, fate, now);
    if (microcontroller.powerLost()) {
        return {};
    }
    last = Answered{frame.sequence, answer};
    return send(frame, answer, fate, now);
}

Bytes LinkEnd::carryOut(const Frame& frame, const Fate& fate, Time now) {
    return fate.refusal ? negativeResponse(frame, *fate.refusal) : microcontroller.answer(frame.message, now);
}

std::vector<Output> LinkEnd::send(const Frame& frame, const Bytes& answer, const Fate& fate, Time now) {
    std::vector<Output> outputs;
    Time due = now;
    for (unsigned count = 0; count < fate.pending; ++count) {
        outputs.push_back(
            {encodeFrame({frame.sequence, negativeResponse(frame, uds::kResponsePending)}), due});
        due += kPendingSpacing;
    }
    due += fate.delay;

    Bytes bytes = encodeFrame({frame.sequence, answer});
    std::string note;
    if (fate.refusal) {
        note += " [fault: refused]";
    }
    if (fate.pending > 0) {
        note += " [fault: after " + std::to_string(fate.pending) + " response-pending]";
    }
    if (fate.delay.count() > 0) {
        note += " [fault: " + std::to_string(fate.delay.count()) + " ms late]";
    }
    if (fate.damage) {
        bytes[bytes.size() / 2] ^= kFlippedBit;
        note += " [fault: damaged]";
    }
    if (fate.lose) {
        note += " [fault: lost]";
    } else {
        outputs.push_back({bytes, due});
    }
    tell(line("answer ", frame, answerText(answer) + note));
    microcontroller.answered(due);
    return outputs;
}

}  // namespace kavro::emulator
