// Asks the microcontroller over a byte link and gets its answer, whatever happens on the way: an answer that is
// lost, damaged, late or doubled, a microcontroller that is busy or needs longer. All of it is bounded.
//
// What is survived leaves a line in the log at level 2; what ends a request is the caller's to log.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "base/raw_file.h"
#include "platform/mcu/byte_link.h"

namespace kavro {

// An answer is awaited so long, and the request sent so often before it counts as unanswered.
inline constexpr int kAnswerMs = 500;
inline constexpr int kMaxTries = 5;

// After a response-pending the answer is awaited so long, and so many of them are taken for one request.
inline constexpr int kPendingMs = 5000;
inline constexpr int kMaxPendings = 30;

// A microcontroller that says it is busy is asked again so often, after such a pause.
inline constexpr int kMaxBusy = 10;
inline constexpr int kBusyPauseMs = 50;

struct UdsAnswer {
    Bytes message;             // the positive response, whole; empty on failure
    std::string error;         // "SERVICE: reason"; empty on success
    std::uint8_t refusal = 0;  // the code of the negative response that was the reason, else 0

    [[nodiscard]] bool ok() const { return error.empty(); }
};

// One conversation, from the first request to the object's end.
class UdsClient {
  public:
    // keepGoing is asked before everything that is sent or awaited anew; false ends the request with an error.
    // Without one everything goes on.
    explicit UdsClient(std::unique_ptr<ByteLink> openedLink, const KeepGoing& keepGoing = {});

    // Sends a request of 1 to kMaxMessageBytes bytes and waits for its answer. A positive response repeats what
    // the standard wants repeated and has at least answerBytes bytes; anything else is an error.
    UdsAnswer ask(const Bytes& request, std::size_t answerBytes);

    // Sends a last request, once and even when keepGoing is false, and waits for an answer whatever it says.
    void leave(const Bytes& request);

    // Whether a request would go on.
    [[nodiscard]] bool mayGoOn() const { return !question || question(); }

  private:
    UdsAnswer begin();
    UdsAnswer askWhileBusy(const Bytes& request, std::size_t answerBytes);
    UdsAnswer exchange(const Bytes& request, std::size_t answerBytes);
    bool discardOldInput(std::string& error);
    bool sendRequest(const Bytes& request, std::uint8_t own, std::string& error);
    bool awaitAnswer(const Bytes& request, std::uint8_t own, int& pendings, Bytes& answer,
                     std::string& error);
    bool awaitMessage(std::uint8_t own, int timeoutMs, Bytes& message, std::string& error);
    bool takeFrame(std::uint8_t own, Bytes& message);
    std::uint8_t nextNumber();

    std::unique_ptr<ByteLink> link;
    KeepGoing question;
    FrameReader reader;
    std::deque<Frame> frames;  // have arrived and were not looked at yet
    bool begun = false;
    std::uint8_t number = 0;  // of the next request
};

}  // namespace kavro
