#include "platform/mcu/mcu_client.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <limits>

#include "base/mcu_image.h"
#include "common/utility.h"
#include "platform/mcu/uds.h"

namespace kavro {
namespace {

// How long the microcontroller may take to start its application, and how often it is asked meanwhile.
constexpr double kStartMs = 5000;
constexpr int kStartPollMs = 250;

// What is done, for the texts of errors.
constexpr const char* kProbing = "looking for the microcontroller";
constexpr const char* kReadingVersion = "reading the version";
constexpr const char* kSwitchingOn = "switching the programming link on";
constexpr const char* kSwitchingOff = "switching the programming link off";
constexpr const char* kRequestingReset = "requesting a reset of the main processor";
constexpr const char* kEnteringSession = "entering the programming session";
constexpr const char* kLoadingDriver = "loading the flash driver";
constexpr const char* kCheckingDriver = "checking the flash driver";
constexpr const char* kErasing = "erasing the application";
constexpr const char* kLoadingApplication = "loading the application";
constexpr const char* kCheckingApplication = "checking the application";
constexpr const char* kMakingRun = "making the application the one to run";
constexpr const char* kStarting = "starting the application";

// Lengths of positive responses.
constexpr std::size_t kSessionAnswerBytes = 6;  // 50 session, two times of 2 bytes
constexpr std::size_t kResetAnswerBytes = 2;    // 51 kind
constexpr std::size_t kVersionOffset = 3;       // 62 identifier
constexpr std::size_t kVersionAnswerBytes = kVersionOffset + 4;
constexpr std::size_t kRoutineAnswerBytes = 4;   // 71 kind routine
constexpr std::size_t kStatusAnswerBytes = 5;    // .. status
constexpr std::size_t kDownloadAnswerBytes = 4;  // 74 form, block length of 2 bytes
constexpr std::size_t kTransferAnswerBytes = 2;  // 76 counter
constexpr std::size_t kExitAnswerBytes = 1;      // 77

Bytes routine(std::uint8_t kind, std::uint16_t identifier) {
    Bytes request = {uds::kRoutineControl, kind};
    uds::appendUint16(request, identifier);
    return request;
}

Bytes routineOn(std::uint16_t identifier, std::uint32_t start, std::size_t bytes) {
    Bytes request = routine(uds::kStartRoutine, identifier);
    uds::appendUint32(request, start);
    uds::appendUint32(request, static_cast<std::uint32_t>(bytes));
    return request;
}

Bytes readIdentifier(std::uint16_t identifier) {
    Bytes request = {uds::kReadDataByIdentifier};
    uds::appendUint16(request, identifier);
    return request;
}

bool isCorrect(const Bytes& routineAnswer) {
    return routineAnswer[kRoutineAnswerBytes] == uds::kRoutineCorrect;
}

// What flash holds from the first segment on to the end of the last one: between them it stays erased.
Segment withGapsErased(const std::vector<Segment>& segments) {
    Segment whole = {segments.front().address, {}};
    for (const Segment& segment : segments) {
        whole.bytes.resize(segment.address - whole.address, kMcuErasedByte);
        whole.bytes.insert(whole.bytes.end(), segment.bytes.begin(), segment.bytes.end());
    }
    return whole;
}

}  // namespace

McuClient::McuClient(const std::string& linkAddress, std::unique_ptr<ByteLink> openedLink,
                     const KeepGoing& keepGoing)
    : address(linkAddress), client(std::move(openedLink), keepGoing) {}

bool McuClient::fail(const char* step, const std::string& reason, std::string& error) const {
    error = address + ": " + step + ": " + reason;
    return false;
}

std::optional<Bytes> McuClient::ask(const char* step, const Bytes& request, std::size_t answerBytes,
                                    std::string& error) {
    UdsAnswer answer = client.ask(request, answerBytes);
    if (!answer.ok()) {
        fail(step, answer.error, error);
        return std::nullopt;
    }
    return std::move(answer.message);
}

bool McuClient::probe(std::string& error) {
    const Bytes present = {uds::kTesterPresent, uds::kZeroSubFunction};
    return ask(kProbing, present, present.size(), error).has_value();
}

bool McuClient::setLink(bool on, std::string& error) {
    const Bytes request = routine(on ? uds::kStartRoutine : uds::kStopRoutine, uds::kProgrammingLinkRoutine);
    return ask(on ? kSwitchingOn : kSwitchingOff, request, kRoutineAnswerBytes, error).has_value();
}

std::optional<int> McuClient::version(std::string& error) {
    const UdsAnswer answer = client.ask(readIdentifier(uds::kApplicationVersionId), kVersionAnswerBytes);
    if (answer.refusal == uds::kConditionsNotCorrect) {
        fail(kReadingVersion, "the microcontroller runs no application: " + answer.error, error);
        return std::nullopt;
    }
    if (!answer.ok()) {
        fail(kReadingVersion, answer.error, error);
        return std::nullopt;
    }
    const std::uint32_t number = uds::uint32At(answer.message, kVersionOffset);
    if (number > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
        fail(kReadingVersion, std::to_string(number) + " is no version", error);
        return std::nullopt;
    }
    return static_cast<int>(number);
}

bool McuClient::program(const McuFirmware& firmware, std::string& error, const Count& count) {
    countSent = count;
    if (!checkFlashDriver(firmware.flashDriver, error)) {
        error.insert(0, "flash driver: ");
        return false;
    }
    if (!checkApplication(firmware.application, error)) {
        error.insert(0, "application: ");
        return false;
    }
    if (!enterProgramming(error)) {
        return false;
    }
    if (!programInSession(firmware, error)) {
        client.leave({uds::kEcuReset, uds::kHardReset});
        return false;
    }
    return true;
}

bool McuClient::enterProgramming(std::string& error) {
    const UdsAnswer answer =
        client.ask({uds::kDiagnosticSessionControl, uds::kProgrammingSession}, kSessionAnswerBytes);
    if (answer.refusal == uds::kConditionsNotCorrect) {
        return fail(kEnteringSession,
                    answer.error + ": the programming link is off, velSpiDevCtrl switches it on", error);
    }
    return answer.ok() || fail(kEnteringSession, answer.error, error);
}

bool McuClient::programInSession(const McuFirmware& firmware, std::string& error) {
    const auto isGood = [&](const Segment& segment) { return checkMemory(kCheckingDriver, segment, error); };
    return download(kLoadingDriver, firmware.flashDriver, error) &&
           std::all_of(firmware.flashDriver.begin(), firmware.flashDriver.end(), isGood) &&
           eraseApplication(error) && download(kLoadingApplication, firmware.application, error) &&
           checkMemory(kCheckingApplication, withGapsErased(firmware.application), error);
}

bool McuClient::download(const char* step, const std::vector<Segment>& segments, std::string& error) {
    return std::all_of(segments.begin(), segments.end(),
                       [&](const Segment& segment) { return downloadSegment(step, segment, error); });
}

bool McuClient::downloadSegment(const char* step, const Segment& segment, std::string& error) {
    Bytes request = {uds::kRequestDownload, uds::kPlainData, uds::kFourByteAddressAndLength};
    uds::appendUint32(request, segment.address);
    uds::appendUint32(request, static_cast<std::uint32_t>(segment.bytes.size()));
    const std::optional<Bytes> offer = ask(step, request, kDownloadAnswerBytes, error);
    if (!offer) {
        return false;
    }
    const std::size_t offered = uds::uint16At(*offer, 2);
    if ((*offer)[1] != uds::kTwoByteBlockLength || offered <= uds::kTransferHeaderBytes) {
        return fail(step, "the microcontroller offers no usable length of blocks", error);
    }

    const std::size_t blockBytes = std::min(offered, kMaxMessageBytes) - uds::kTransferHeaderBytes;
    std::uint8_t counter = uds::kFirstBlockCounter;
    for (std::size_t offset = 0; offset < segment.bytes.size(); offset += blockBytes) {
        const std::size_t size = std::min(blockBytes, segment.bytes.size() - offset);
        Bytes block(uds::kTransferHeaderBytes + size);
        block[0] = uds::kTransferData;
        block[1] = counter++;
        std::copy_n(segment.bytes.begin() + static_cast<long>(offset), size,
                    block.begin() + uds::kTransferHeaderBytes);
        if (!ask(step, block, kTransferAnswerBytes, error)) {
            return false;
        }
        if (countSent) {
            countSent(size);
        }
    }
    return ask(step, {uds::kRequestTransferExit}, kExitAnswerBytes, error).has_value();
}

bool McuClient::checkMemory(const char* step, const Segment& memory, std::string& error) {
    Bytes request = routineOn(uds::kCheckMemoryRoutine, memory.address, memory.bytes.size());
    const auto crc = ::crc32_z(0, memory.bytes.data(), memory.bytes.size());
    uds::appendUint32(request, static_cast<std::uint32_t>(crc));
    const std::optional<Bytes> answer = ask(step, request, kStatusAnswerBytes, error);
    if (!answer) {
        return false;
    }
    return isCorrect(*answer) ||
           fail(step, "the microcontroller's memory does not hold what was sent", error);
}

bool McuClient::eraseApplication(std::string& error) {
    const Bytes request = routineOn(uds::kEraseMemoryRoutine, kMcuApplicationStart, kMcuApplicationBytes);
    const std::optional<Bytes> answer = ask(kErasing, request, kStatusAnswerBytes, error);
    if (!answer) {
        return false;
    }
    return isCorrect(*answer) || fail(kErasing, "the microcontroller's flash was not erased", error);
}

bool McuClient::makeRun(int expectedVersion, std::string& error) {
    const Bytes request = routine(uds::kStartRoutine, uds::kCheckDependenciesRoutine);
    const std::optional<Bytes> answer = ask(kMakingRun, request, kStatusAnswerBytes, error);
    if (!answer) {
        return false;
    }
    if (!isCorrect(*answer)) {
        return fail(kMakingRun, "the microcontroller does not accept it", error);
    }
    return ask(kStarting, {uds::kEcuReset, uds::kHardReset}, kResetAnswerBytes, error) &&
           compareVersion(expectedVersion, error);
}

// While it starts the microcontroller does not answer, and its boot loader has no version: both may pass.
bool McuClient::compareVersion(int expectedVersion, std::string& error) {
    const double deadline = glbGetCurTickMs() + kStartMs;
    std::optional<int> reported;
    do {
        if (!client.mayGoOn()) {
            return fail(kStarting, "given up", error);
        }
        ::usleep(kStartPollMs * 1000);
        reported = version(error);
    } while (!reported && glbGetCurTickMs() < deadline);
    if (!reported) {
        return false;
    }
    return *reported == expectedVersion ||
           fail(kStarting,
                "the microcontroller reports version " + std::to_string(*reported) +
                    ", not the application's " + std::to_string(expectedVersion),
                error);
}

bool McuClient::requestReset(std::string& error) {
    const Bytes request = routine(uds::kStartRoutine, uds::kResetMainProcessorRoutine);
    return ask(kRequestingReset, request, kRoutineAnswerBytes, error).has_value();
}

bool checkMcuConfig(const PlatformConfig& config, std::string& error) {
    if (config.mcuLink.empty()) {
        const std::string wrong = wrongMemberOf(config, "mcu");
        error = platformConfigError(config, wrong.empty() ? "mcu.link is missing" : wrong);
        return false;
    }
    if (!parseLinkAddress(config.mcuLink, error)) {
        error = platformConfigError(config, "mcu.link: " + error);
        return false;
    }
    return true;
}

std::unique_ptr<McuClient> connectMcu(const PlatformConfig& config, std::string& error,
                                      const KeepGoing& keepGoing) {
    if (!checkMcuConfig(config, error)) {
        return nullptr;
    }
    std::unique_ptr<ByteLink> link = openByteLink(config.mcuLink, error);
    return link != nullptr ? std::make_unique<McuClient>(config.mcuLink, std::move(link), keepGoing)
                           : nullptr;
}

}  // namespace kavro
