#include "platform/mcu/uds.h"

#include <cstdio>

namespace kavro::uds {
namespace {

struct CodeName {
    std::uint8_t code;
    const char* name;
};

constexpr CodeName kServiceNames[] = {
    {kDiagnosticSessionControl, "DiagnosticSessionControl"},
    {kEcuReset, "ECUReset"},
    {kReadDataByIdentifier, "ReadDataByIdentifier"},
    {kRoutineControl, "RoutineControl"},
    {kRequestDownload, "RequestDownload"},
    {kTransferData, "TransferData"},
    {kRequestTransferExit, "RequestTransferExit"},
    {kTesterPresent, "TesterPresent"},
};

constexpr CodeName kNegativeResponseNames[] = {
    {kServiceNotSupported, "serviceNotSupported"},
    {kSubFunctionNotSupported, "subFunctionNotSupported"},
    {kIncorrectMessageLengthOrInvalidFormat, "incorrectMessageLengthOrInvalidFormat"},
    {kBusyRepeatRequest, "busyRepeatRequest"},
    {kConditionsNotCorrect, "conditionsNotCorrect"},
    {kRequestSequenceError, "requestSequenceError"},
    {kRequestOutOfRange, "requestOutOfRange"},
    {kUploadDownloadNotAccepted, "uploadDownloadNotAccepted"},
    {kTransferDataSuspended, "transferDataSuspended"},
    {kGeneralProgrammingFailure, "generalProgrammingFailure"},
    {kWrongBlockSequenceCounter, "wrongBlockSequenceCounter"},
    {kResponsePending, "requestCorrectlyReceived-ResponsePending"},
    {kSubFunctionNotSupportedInActiveSession, "subFunctionNotSupportedInActiveSession"},
    {kServiceNotSupportedInActiveSession, "serviceNotSupportedInActiveSession"},
};

template <std::size_t kCount>
std::string nameIn(const CodeName (&table)[kCount], std::uint8_t code, const char* kind) {
    for (const CodeName& row : table) {
        if (row.code == code) {
            return row.name;
        }
    }
    char number[8];
    std::snprintf(number, sizeof number, " 0x%02X", code);
    return std::string(kind) + number;
}

}  // namespace

std::string serviceName(std::uint8_t service) {
    return nameIn(kServiceNames, service, "service");
}

std::string negativeResponseName(std::uint8_t code) {
    return nameIn(kNegativeResponseNames, code, "response code");
}

void appendUint16(Bytes& message, std::uint16_t value) {
    message.push_back(static_cast<std::uint8_t>(value >> 8));
    message.push_back(static_cast<std::uint8_t>(value));
}

void appendUint32(Bytes& message, std::uint32_t value) {
    appendUint16(message, static_cast<std::uint16_t>(value >> 16));
    appendUint16(message, static_cast<std::uint16_t>(value));
}

std::uint16_t uint16At(const Bytes& message, std::size_t offset) {
    return static_cast<std::uint16_t>(message[offset] << 8 | message[offset + 1]);
}

std::uint32_t uint32At(const Bytes& message, std::size_t offset) {
    return static_cast<std::uint32_t>(uint16At(message, offset)) << 16 | uint16At(message, offset + 2);
}

}  // namespace kavro::uds
