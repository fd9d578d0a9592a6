// What the microcontroller and the programs that talk to it have to agree on: services, sessions, routines and
// negative responses of ISO 14229-1 (Unified Diagnostic Services), as far as this device uses them. docs/mcu.md
// shows the messages byte by byte.
//
// Numbers in a message are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/mcu/frame.h"

namespace kavro::uds {

// The first byte of a request.
enum Service : std::uint8_t {
    kDiagnosticSessionControl = 0x10,
    kEcuReset = 0x11,
    kReadDataByIdentifier = 0x22,
    kRoutineControl = 0x31,
    kRequestDownload = 0x34,
    kTransferData = 0x36,
    kRequestTransferExit = 0x37,
    kTesterPresent = 0x3E,
};

// A positive response begins with the service plus this.
inline constexpr std::uint8_t kPositiveResponse = 0x40;

// A negative response: this, the service, the reason.
inline constexpr std::uint8_t kNegativeResponse = 0x7F;
inline constexpr std::size_t kNegativeResponseBytes = 3;

enum NegativeResponseCode : std::uint8_t {
    kServiceNotSupported = 0x11,
    kSubFunctionNotSupported = 0x12,
    kIncorrectMessageLengthOrInvalidFormat = 0x13,
    kBusyRepeatRequest = 0x21,
    kConditionsNotCorrect = 0x22,
    kRequestSequenceError = 0x24,
    kRequestOutOfRange = 0x31,
    kUploadDownloadNotAccepted = 0x70,
    kTransferDataSuspended = 0x71,
    kGeneralProgrammingFailure = 0x72,
    kWrongBlockSequenceCounter = 0x73,
    kResponsePending = 0x78,
    kSubFunctionNotSupportedInActiveSession = 0x7E,
    kServiceNotSupportedInActiveSession = 0x7F,
};

// Sessions of DiagnosticSessionControl.
inline constexpr std::uint8_t kDefaultSession = 0x01;
inline constexpr std::uint8_t kProgrammingSession = 0x02;

// The one kind of ECUReset.
inline constexpr std::uint8_t kHardReset = 0x01;

// The one kind of TesterPresent.
inline constexpr std::uint8_t kZeroSubFunction = 0x00;

// Identifiers of ReadDataByIdentifier.
inline constexpr std::uint16_t kActiveSessionId = 0xF186;       // 1 byte
inline constexpr std::uint16_t kApplicationVersionId = 0xF189;  // 4 bytes

// Kinds of RoutineControl.
inline constexpr std::uint8_t kStartRoutine = 0x01;
inline constexpr std::uint8_t kStopRoutine = 0x02;

// Routines.
inline constexpr std::uint16_t kProgrammingLinkRoutine = 0x0201;     // may be stopped
inline constexpr std::uint16_t kCheckMemoryRoutine = 0x0202;         // address, length, CRC-32: 4 bytes each
inline constexpr std::uint16_t kResetMainProcessorRoutine = 0x0210;  //
inline constexpr std::uint16_t kEraseMemoryRoutine = 0xFF00;         // address, length: 4 bytes each
inline constexpr std::uint16_t kCheckDependenciesRoutine = 0xFF01;   //

// The status with which a check routine ends.
inline constexpr std::uint8_t kRoutineCorrect = 0x00;
inline constexpr std::uint8_t kRoutineIncorrect = 0x01;

// RequestDownload: neither compressed nor encrypted, address and length of 4 bytes each.
inline constexpr std::uint8_t kPlainData = 0x00;
inline constexpr std::uint8_t kFourByteAddressAndLength = 0x44;

// Its positive response: a block length of 2 bytes follows. It counts the whole TransferData message.
inline constexpr std::uint8_t kTwoByteBlockLength = 0x20;

// Of TransferData: service and block sequence counter. The counter begins at 1 and wraps from 255 to 0.
inline constexpr std::size_t kTransferHeaderBytes = 2;
inline constexpr std::uint8_t kFirstBlockCounter = 0x01;

// Names as the standard writes them; "service 0xNN", "response code 0xNN" for one that is not used here.
std::string serviceName(std::uint8_t service);
std::string negativeResponseName(std::uint8_t code);

void appendUint16(Bytes& message, std::uint16_t value);
void appendUint32(Bytes& message, std::uint32_t value);

// The number at an offset. All of it must be within the message.
std::uint16_t uint16At(const Bytes& message, std::size_t offset);
std::uint32_t uint32At(const Bytes& message, std::size_t offset);

}  // namespace kavro::uds
