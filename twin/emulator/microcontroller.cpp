#include "twin/emulator/microcontroller.h"

#include <algorithm>
#include <utility>

#include "base/mcu_image.h"
#include "platform/mcu/uds.h"
#include "twin/emulator/application.h"

namespace kavro::emulator {
namespace {

using namespace kavro::uds;

constexpr std::uint8_t kPositive = 0;

// Lengths of whole requests.
constexpr std::size_t kServiceAndSubFunction = 2;
constexpr std::size_t kRoutineHeader = 4;
constexpr std::size_t kRoutineWithRange = kRoutineHeader + 8;
constexpr std::size_t kRoutineWithRangeAndCrc = kRoutineWithRange + 4;
constexpr std::size_t kDownloadHeader = 3;
constexpr std::size_t kDownloadRequest = kDownloadHeader + 8;

// After the session, how long answers may take: 50 ms, and 500 times 10 ms after a response-pending.
constexpr std::uint16_t kAnswerTime = 50;
constexpr std::uint16_t kPendingAnswerTime = 500;

constexpr std::uint8_t kAnyBit = 0x10;

}  // namespace

struct Microcontroller::ServiceRow {
    std::uint8_t service;
    bool whileProgrammingOnly;
    Handler handler;
};

const Microcontroller::ServiceRow Microcontroller::kServices[] = {
    {kTesterPresent, false, &Microcontroller::testerPresent},
    {kDiagnosticSessionControl, false, &Microcontroller::sessionControl},
    {kEcuReset, false, &Microcontroller::ecuReset},
    {kReadDataByIdentifier, false, &Microcontroller::readData},
    {kRoutineControl, false, &Microcontroller::routineControl},
    {kRequestDownload, true, &Microcontroller::requestDownload},
    {kTransferData, true, &Microcontroller::transferData},
    {kRequestTransferExit, true, &Microcontroller::transferExit},
};

struct Microcontroller::RoutineRow {
    std::uint16_t routine;
    bool stoppable;
    bool whileProgrammingOnly;  // and not within a download
    std::size_t requestBytes;
    Handler handler;
};

const Microcontroller::RoutineRow Microcontroller::kRoutines[] = {
    {kProgrammingLinkRoutine, true, false, kRoutineHeader, &Microcontroller::programmingLink},
    {kResetMainProcessorRoutine, false, false, kRoutineHeader, &Microcontroller::resetMainProcessor},
    {kCheckMemoryRoutine, false, true, kRoutineWithRangeAndCrc, &Microcontroller::checkMemory},
    {kEraseMemoryRoutine, false, true, kRoutineWithRange, &Microcontroller::eraseMemory},
    {kCheckDependenciesRoutine, false, true, kRoutineHeader, &Microcontroller::checkDependencies},
};

// A length of zero is within nothing.
bool Microcontroller::Range::within(std::uint32_t start, std::uint32_t bytes) const {
    return length > 0 && address >= start && std::uint64_t{address} + length <= std::uint64_t{start} + bytes;
}

bool Microcontroller::Range::contains(const Range& other) const {
    return other.within(address, length);
}

bool Microcontroller::Range::touches(const Range& other) const {
    return std::uint64_t{address} < std::uint64_t{other.address} + other.length &&
           std::uint64_t{other.address} < std::uint64_t{address} + length;
}

// --- power, reset, sessions ---------------------------------------------------------------------

Microcontroller::Microcontroller(FlashMemory& flashMemory, Surroundings surroundings)
    : flash(flashMemory), outside(std::move(surroundings)) {
    start();
}

void Microcontroller::start() {
    ++startCount;
    leaveProgramming();
    linkOn = false;
    runningVersion = runnableVersion(flash.bytes());
    outside.tell(runningVersion ? "starts the application of version " + std::to_string(*runningVersion)
                                : "stays in the boot loader: there is no whole application");
}

// The application stays left: what was going to be programmed may be half there.
void Microcontroller::leaveProgramming() {
    programming = false;
    ram.assign(kMcuRamBytes, 0);
    driver.clear();
    erased = false;
    download.reset();
    lastCheck.reset();
}

void Microcontroller::advance(Time now) {
    if (resetAt && now >= *resetAt) {
        deafUntil = *std::exchange(resetAt, std::nullopt) + kStartTime;
        start();
    }
    if (programming && now - lastHeard >= kSessionTimeout) {
        outside.tell("the programming session ends: nothing was heard for too long");
        leaveProgramming();
    }
}

// --- requests -----------------------------------------------------------------------------------

Bytes Microcontroller::answer(const Bytes& request, Time now) {
    advance(now);
    lastHeard = now;
    Bytes response = {static_cast<std::uint8_t>(request[0] + kPositiveResponse)};
    const std::uint8_t code = serve(request, response);
    if (code != kPositive) {
        return {kNegativeResponse, request[0], code};
    }
    if (request[0] == kEcuReset) {
        resetAt = now + kResetDelay;
    }
    return response;
}

std::uint8_t Microcontroller::serve(const Bytes& request, Bytes& response) {
    const auto* const row = std::find_if(std::begin(kServices), std::end(kServices),
                                         [&](const ServiceRow& each) { return each.service == request[0]; });
    if (row == std::end(kServices)) {
        return kServiceNotSupported;
    }
    if (row->whileProgrammingOnly && !programming) {
        return kServiceNotSupportedInActiveSession;
    }
    return (this->*row->handler)(request, response);
}

std::uint8_t Microcontroller::testerPresent(const Bytes& request, Bytes& response) {
    if (request.size() != kServiceAndSubFunction) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (request[1] != kZeroSubFunction) {
        return kSubFunctionNotSupported;
    }
    response.push_back(kZeroSubFunction);
    return kPositive;
}

std::uint8_t Microcontroller::sessionControl(const Bytes& request, Bytes& response) {
    if (request.size() != kServiceAndSubFunction) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    const std::uint8_t session = request[1];
    if (session != kDefaultSession && session != kProgrammingSession) {
        return kSubFunctionNotSupported;
    }
    if (session == kProgrammingSession && !linkOn) {
        return kConditionsNotCorrect;
    }
    leaveProgramming();
    if (session == kProgrammingSession) {
        programming = true;
        runningVersion.reset();
    }
    response.push_back(session);
    appendUint16(response, kAnswerTime);
    appendUint16(response, kPendingAnswerTime);
    return kPositive;
}

std::uint8_t Microcontroller::ecuReset(const Bytes& request, Bytes& response) {
    if (request.size() != kServiceAndSubFunction) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (request[1] != kHardReset) {
        return kSubFunctionNotSupported;
    }
    response.push_back(kHardReset);
    return kPositive;
}

std::uint8_t Microcontroller::readData(const Bytes& request, Bytes& response) {
    if (request.size() != 1 + sizeof(std::uint16_t)) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    const std::uint16_t identifier = uint16At(request, 1);
    appendUint16(response, identifier);
    switch (identifier) {
        case kActiveSessionId:
            response.push_back(programming ? kProgrammingSession : kDefaultSession);
            return kPositive;
        case kApplicationVersionId:
            if (!runningVersion) {
                return kConditionsNotCorrect;
            }
            appendUint32(response, static_cast<std::uint32_t>(*runningVersion));
            return kPositive;
        default:
            return kRequestOutOfRange;
    }
}

// --- routines -----------------------------------------------------------------------------------

std::uint8_t Microcontroller::routineControl(const Bytes& request, Bytes& response) {
    if (request.size() < kRoutineHeader) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    const std::uint8_t kind = request[1];
    if (kind != kStartRoutine && kind != kStopRoutine) {
        return kSubFunctionNotSupported;
    }
    const std::uint16_t routine = uint16At(request, 2);
    const auto* const row = std::find_if(std::begin(kRoutines), std::end(kRoutines),
                                         [&](const RoutineRow& each) { return each.routine == routine; });
    if (row == std::end(kRoutines)) {
        return kRequestOutOfRange;
    }
    if (kind == kStopRoutine && !row->stoppable) {
        return kSubFunctionNotSupported;
    }
    if (row->whileProgrammingOnly && !programming) {
        return kServiceNotSupportedInActiveSession;
    }
    if (request.size() != row->requestBytes) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (row->whileProgrammingOnly && download) {
        return kRequestSequenceError;
    }
    response.push_back(kind);
    appendUint16(response, routine);
    return (this->*row->handler)(request, response);
}

// Without the link no programming session lasts.
std::uint8_t Microcontroller::programmingLink(const Bytes& request, Bytes& response) {
    (void)response;
    linkOn = request[1] == kStartRoutine;
    if (!linkOn) {
        leaveProgramming();
    }
    return kPositive;
}

std::uint8_t Microcontroller::resetMainProcessor(const Bytes& request, Bytes& response) {
    (void)request, (void)response;
    outside.resetMainProcessor();
    return kPositive;
}

std::uint8_t Microcontroller::checkMemory(const Bytes& request, Bytes& response) {
    const Range what{uint32At(request, kRoutineHeader), uint32At(request, kRoutineHeader + 4)};
    const std::uint32_t announced = uint32At(request, kRoutineWithRange);
    Check check{what, announced, false};
    if (what.within(0, kMcuFlashBytes)) {
        check.good = crcOf(flash.bytes(), what.address, what.length) == announced;
    } else if (what.within(kMcuRamStart, kMcuRamBytes)) {
        check.good = crcOf(ram, what.address - kMcuRamStart, what.length) == announced;
        noteDriverCheck(check);
    } else {
        return kRequestOutOfRange;
    }
    lastCheck = check;
    response.push_back(check.good ? kRoutineCorrect : kRoutineIncorrect);
    return kPositive;
}

void Microcontroller::noteDriverCheck(const Check& check) {
    for (DriverSection& section : driver) {
        if (check.good && check.what.contains(section.where)) {
            section.good = true;
        } else if (!check.good && check.what.touches(section.where)) {
            section.good = false;
        }
    }
}

bool Microcontroller::driverIsGood() const {
    return !driver.empty() &&
           std::all_of(driver.begin(), driver.end(), [](const DriverSection& each) { return each.good; });
}

// The record goes first, and is gone for good before anything else is: half an application never runs.
std::uint8_t Microcontroller::eraseMemory(const Bytes& request, Bytes& response) {
    if (!driverIsGood()) {
        return kRequestSequenceError;
    }
    const Range what{uint32At(request, kRoutineHeader), uint32At(request, kRoutineHeader + 4)};
    if (!what.within(kMcuApplicationStart, kMcuApplicationBytes) || what.address % kMcuSectorBytes != 0 ||
        what.length % kMcuSectorBytes != 0) {
        return kRequestOutOfRange;
    }
    lastCheck.reset();
    std::string error;
    const bool done = flash.erase(kMcuRecordStart, kMcuSectorBytes, error) && flash.flush(error) &&
                      flash.erase(what.address, what.length, error) && flash.flush(error);
    if (!succeeded(done, error)) {
        return kGeneralProgrammingFailure;
    }
    erased = true;
    response.push_back(kRoutineCorrect);
    return kPositive;
}

std::uint8_t Microcontroller::checkDependencies(const Bytes& request, Bytes& response) {
    (void)request;
    if (!lastCheck) {
        return kRequestSequenceError;
    }
    if (!lastCheck->good || lastCheck->what.address != kMcuApplicationStart ||
        lastCheck->what.length < kMcuHeaderBytes || !headerVersionIn(flash.bytes())) {
        response.push_back(kRoutineIncorrect);
        return kPositive;
    }
    if (!writeRecord(*lastCheck)) {
        return kGeneralProgrammingFailure;
    }
    response.push_back(kRoutineCorrect);
    return kPositive;
}

// A record that is there already is as good as a new one.
bool Microcontroller::writeRecord(const Check& check) {
    const ApplicationRecord record = applicationRecord(check.what.length, check.crc);
    if (std::equal(record.begin(), record.end(), flash.bytes().begin() + kMcuRecordStart)) {
        return true;
    }
    std::string error;
    const bool done =
        flash.program(kMcuRecordStart, record.data(), record.size(), error) && flash.flush(error);
    return succeeded(done, error);
}

// --- download -----------------------------------------------------------------------------------

std::uint8_t Microcontroller::requestDownload(const Bytes& request, Bytes& response) {
    if (request.size() < kDownloadHeader) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (request[1] != kPlainData || request[2] != kFourByteAddressAndLength) {
        return kUploadDownloadNotAccepted;
    }
    if (request.size() != kDownloadRequest) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (download) {
        return kRequestSequenceError;
    }
    const Range where{uint32At(request, kDownloadHeader), uint32At(request, kDownloadHeader + 4)};
    if (where.length == 0) {
        return kUploadDownloadNotAccepted;
    }
    const bool toRam = where.within(kMcuRamStart, kMcuRamBytes);
    if (!toRam && !where.within(kMcuApplicationStart, kMcuApplicationBytes)) {
        return kRequestOutOfRange;
    }
    if (!toRam && !erased) {
        return kRequestSequenceError;
    }
    if (toRam) {
        driver.push_back({where, false});
        noteDriverCheck({where, 0, false});
    }
    lastCheck.reset();
    download = Download{where, kFirstBlockCounter, false};
    response.push_back(kTwoByteBlockLength);
    appendUint16(response, kBlockBytes);
    return kPositive;
}

std::uint8_t Microcontroller::transferData(const Bytes& request, Bytes& response) {
    if (request.size() <= kTransferHeaderBytes || request.size() > kBlockBytes) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (!download) {
        return kRequestSequenceError;
    }
    const std::uint8_t counter = request[1];
    response.push_back(counter);
    if (download->begun && counter == static_cast<std::uint8_t>(download->expected - 1)) {
        return kPositive;
    }
    if (download->rest.length == 0) {
        return kRequestSequenceError;
    }
    if (counter != download->expected) {
        return kWrongBlockSequenceCounter;
    }
    const Bytes data(request.begin() + kTransferHeaderBytes, request.end());
    const auto length = static_cast<std::uint32_t>(data.size());
    if (length > download->rest.length) {
        return kTransferDataSuspended;
    }
    if (!writeBlock(download->rest.address, data)) {
        return kGeneralProgrammingFailure;
    }
    download->rest = {download->rest.address + length, download->rest.length - length};
    ++download->expected;
    download->begun = true;
    return kPositive;
}

bool Microcontroller::writeBlock(std::uint32_t address, Bytes data) {
    switch (outside.nextBlockFault()) {
        case BlockFault::kNone:
            break;
        case BlockFault::kCorrupt:
            data[data.size() / 2] ^= kAnyBit;
            outside.tell("writes a wrong bit [fault: corrupt]");
            break;
        case BlockFault::kPowerLoss:
            data.resize(data.size() / 2);
            lostPower = true;
            break;
    }
    return program(address, data.data(), data.size());
}

bool Microcontroller::program(std::uint32_t address, const std::uint8_t* data, std::size_t length) {
    if (address >= kMcuRamStart) {
        std::copy_n(data, length, ram.begin() + static_cast<long>(address - kMcuRamStart));
        return true;
    }
    std::string error;
    return succeeded(flash.program(address, data, length, error), error);
}

std::uint8_t Microcontroller::transferExit(const Bytes& request, Bytes& response) {
    (void)response;
    if (request.size() != 1) {
        return kIncorrectMessageLengthOrInvalidFormat;
    }
    if (!download || download->rest.length > 0) {
        return kRequestSequenceError;
    }
    std::string error;
    if (!succeeded(flash.flush(error), error)) {
        return kGeneralProgrammingFailure;
    }
    download.reset();
    return kPositive;
}

bool Microcontroller::succeeded(bool done, const std::string& error) const {
    if (!done) {
        outside.tell(error);
    }
    return done;
}

}  // namespace kavro::emulator
