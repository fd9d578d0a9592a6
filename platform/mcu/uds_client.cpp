#include "platform/mcu/uds_client.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

#include "common/utility.h"
#include "platform/mcu/uds.h"

namespace kavro {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSurvived = 2;
constexpr const char* kGivenUp = "given up";

// What an earlier program left unread is over when the link is quiet for so long.
constexpr int kQuietMs = 5;
constexpr int kMaxOldBlocks = 100;

// So many bytes of a request come back in its positive response, behind the service.
struct EchoBytes {
    std::uint8_t service;
    std::size_t count;
};

constexpr EchoBytes kEchoes[] = {
    {uds::kDiagnosticSessionControl, 1},  // session
    {uds::kEcuReset, 1},                  // kind
    {uds::kReadDataByIdentifier, 2},      // identifier
    {uds::kRoutineControl, 3},            // kind, routine
    {uds::kTransferData, 1},              // counter
    {uds::kTesterPresent, 1},             // kind
};

std::size_t echoBytes(std::uint8_t service) {
    for (const EchoBytes& row : kEchoes) {
        if (row.service == service) {
            return row.count;
        }
    }
    return 0;
}

void logSurvived(const Bytes& request, const std::string& what) {
    printLog(kSurvived, "mcu: %s: %s\n", uds::serviceName(request[0]).c_str(), what.c_str());
}

std::string hexOf(std::uint8_t byte) {
    char text[3];
    std::snprintf(text, sizeof text, "%02X", byte);
    return text;
}

// The first bytes of a message, for an error's text.
std::string beginOf(const Bytes& message) {
    constexpr std::size_t kShown = 8;
    std::string text;
    for (std::size_t index = 0; index < std::min(kShown, message.size()); ++index) {
        text += (index == 0 ? "" : " ") + hexOf(message[index]);
    }
    return message.size() > kShown ? text + " .." : text;
}

bool isNegative(const Bytes& answer, const Bytes& request) {
    return answer.size() == uds::kNegativeResponseBytes && answer[0] == uds::kNegativeResponse &&
           answer[1] == request[0];
}

bool isPending(const Bytes& answer, const Bytes& request) {
    return isNegative(answer, request) && answer[2] == uds::kResponsePending;
}

bool isPositive(const Bytes& answer, const Bytes& request, std::size_t answerBytes) {
    const std::size_t echoed = std::min(echoBytes(request[0]), request.size() - 1);
    return answer.size() >= std::max(answerBytes, 1 + echoed) &&
           answer[0] == request[0] + uds::kPositiveResponse &&
           std::equal(request.begin() + 1, request.begin() + 1 + static_cast<long>(echoed),
                      answer.begin() + 1);
}

UdsAnswer failure(const Bytes& request, const std::string& reason) {
    return {{}, uds::serviceName(request[0]) + ": " + reason, 0};
}

UdsAnswer judge(const Bytes& request, std::size_t answerBytes, Bytes answer) {
    if (isNegative(answer, request)) {
        const std::string reason = uds::negativeResponseName(answer[2]) + " (0x" + hexOf(answer[2]) + ")";
        logSurvived(request, reason);
        UdsAnswer result = failure(request, reason);
        result.refusal = answer[2];
        return result;
    }
    if (!isPositive(answer, request, answerBytes)) {
        return failure(request, "the answer " + beginOf(answer) + " does not belong to the request " +
                                    beginOf(request) + ", or is too short");
    }
    return {std::move(answer), {}, 0};
}

}  // namespace

UdsClient::UdsClient(std::unique_ptr<ByteLink> openedLink, const KeepGoing& keepGoing)
    : link(std::move(openedLink)), question(keepGoing) {}

UdsAnswer UdsClient::ask(const Bytes& request, std::size_t answerBytes) {
    if (!begun) {
        UdsAnswer answer = begin();
        if (!answer.ok()) {
            return answer;
        }
    }
    return askWhileBusy(request, answerBytes);
}

void UdsClient::leave(const Bytes& request) {
    std::string error;
    Bytes answer;
    const std::uint8_t own = nextNumber();
    if (sendRequest(request, own, error)) {
        awaitMessage(own, kAnswerMs, answer, error);
    }
}

// The number that begins a conversation is carried out in any case, whatever an earlier program has asked. So it
// goes to a request that may be carried out twice.
UdsAnswer UdsClient::begin() {
    const Bytes present = {uds::kTesterPresent, uds::kZeroSubFunction};
    std::string error;
    if (!discardOldInput(error)) {
        return failure(present, error);
    }
    number = 0;
    UdsAnswer answer = askWhileBusy(present, present.size());
    begun = answer.ok();
    return answer;
}

// The answer to an earlier program could be taken for one of ours that has the same number.
bool UdsClient::discardOldInput(std::string& error) {
    for (int count = 0; count < kMaxOldBlocks; ++count) {
        const std::optional<Bytes> bytes = link->receive(kQuietMs, error);
        if (!bytes) {
            return false;
        }
        if (bytes->empty()) {
            break;
        }
    }
    return true;
}

// That the microcontroller is busy is an answer: the same request is a new one then.
UdsAnswer UdsClient::askWhileBusy(const Bytes& request, std::size_t answerBytes) {
    for (int repeated = 0;; ++repeated) {
        UdsAnswer answer = exchange(request, answerBytes);
        if (answer.refusal != uds::kBusyRepeatRequest || repeated == kMaxBusy) {
            return answer;
        }
        ::usleep(kBusyPauseMs * 1000);
    }
}

UdsAnswer UdsClient::exchange(const Bytes& request, std::size_t answerBytes) {
    const std::uint8_t own = nextNumber();
    int pendings = 0;
    for (int attempt = 1; attempt <= kMaxTries; ++attempt) {
        if (!mayGoOn()) {
            return failure(request, kGivenUp);
        }
        if (attempt > 1) {
            logSurvived(request, "no answer within " + std::to_string(kAnswerMs) + " ms, try " +
                                     std::to_string(attempt) + " of " + std::to_string(kMaxTries));
        }
        std::string error;
        Bytes answer;
        if (!sendRequest(request, own, error) || !awaitAnswer(request, own, pendings, answer, error)) {
            return failure(request, error);
        }
        if (!answer.empty()) {
            return judge(request, answerBytes, std::move(answer));
        }
    }
    return failure(request, "no answer in " + std::to_string(kMaxTries) + " tries of " +
                                std::to_string(kAnswerMs) + " ms each");
}

// A zero first: what noise has made the receiver take for the begin of a frame ends there.
bool UdsClient::sendRequest(const Bytes& request, std::uint8_t own, std::string& error) {
    Bytes wire = encodeFrame({own, request});
    wire.insert(wire.begin(), 0);
    return link->send(wire, error);
}

// Leaves the answer empty when none came in time. False when there is no use in asking again.
bool UdsClient::awaitAnswer(const Bytes& request, std::uint8_t own, int& pendings, Bytes& answer,
                            std::string& error) {
    int timeoutMs = kAnswerMs;
    for (;;) {
        if (!awaitMessage(own, timeoutMs, answer, error)) {
            return false;
        }
        if (!isPending(answer, request)) {
            return true;
        }
        if (++pendings > kMaxPendings) {
            error = "the answer is still pending after " + std::to_string(kMaxPendings) + " announcements";
            return false;
        }
        if (!mayGoOn()) {
            error = kGivenUp;
            return false;
        }
        logSurvived(request, "response pending, waiting for up to " + std::to_string(kPendingMs) + " ms");
        timeoutMs = kPendingMs;
    }
}

// Leaves the message empty when none with this number came in time. False when the link is broken.
bool UdsClient::awaitMessage(std::uint8_t own, int timeoutMs, Bytes& message, std::string& error) {
    message.clear();
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!takeFrame(own, message)) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (remaining.count() < 0) {
            return true;
        }
        const std::optional<Bytes> bytes = link->receive(static_cast<int>(remaining.count()), error);
        if (!bytes) {
            return false;
        }
        if (bytes->empty()) {
            return true;
        }
        for (const std::uint8_t byte : *bytes) {
            if (std::optional<Frame> frame = reader.take(byte)) {
                frames.push_back(std::move(*frame));
            }
        }
    }
    return true;
}

// Late and doubled answers carry the numbers of requests that are over.
bool UdsClient::takeFrame(std::uint8_t own, Bytes& message) {
    while (!frames.empty()) {
        Frame frame = std::move(frames.front());
        frames.pop_front();
        if (frame.sequence == own) {
            message = std::move(frame.message);
            return true;
        }
    }
    return false;
}

// Never 0 again, which would begin another conversation.
std::uint8_t UdsClient::nextNumber() {
    constexpr std::uint8_t kLast = 255;
    return std::exchange(number, static_cast<std::uint8_t>(number == kLast ? 1 : number + 1));
}

}  // namespace kavro
