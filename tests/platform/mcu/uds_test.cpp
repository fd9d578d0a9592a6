#include "platform/mcu/uds.h"

#include <gtest/gtest.h>

namespace {

namespace uds = kavro::uds;

TEST(UdsNames, are_those_of_the_standard) {
    EXPECT_EQ(uds::serviceName(0x10), "DiagnosticSessionControl");
    EXPECT_EQ(uds::serviceName(0x11), "ECUReset");
    EXPECT_EQ(uds::serviceName(0x22), "ReadDataByIdentifier");
    EXPECT_EQ(uds::serviceName(0x31), "RoutineControl");
    EXPECT_EQ(uds::serviceName(0x34), "RequestDownload");
    EXPECT_EQ(uds::serviceName(0x36), "TransferData");
    EXPECT_EQ(uds::serviceName(0x37), "RequestTransferExit");
    EXPECT_EQ(uds::serviceName(0x3E), "TesterPresent");
    EXPECT_EQ(uds::negativeResponseName(0x11), "serviceNotSupported");
    EXPECT_EQ(uds::negativeResponseName(0x12), "subFunctionNotSupported");
    EXPECT_EQ(uds::negativeResponseName(0x13), "incorrectMessageLengthOrInvalidFormat");
    EXPECT_EQ(uds::negativeResponseName(0x21), "busyRepeatRequest");
    EXPECT_EQ(uds::negativeResponseName(0x22), "conditionsNotCorrect");
    EXPECT_EQ(uds::negativeResponseName(0x24), "requestSequenceError");
    EXPECT_EQ(uds::negativeResponseName(0x31), "requestOutOfRange");
    EXPECT_EQ(uds::negativeResponseName(0x70), "uploadDownloadNotAccepted");
    EXPECT_EQ(uds::negativeResponseName(0x71), "transferDataSuspended");
    EXPECT_EQ(uds::negativeResponseName(0x72), "generalProgrammingFailure");
    EXPECT_EQ(uds::negativeResponseName(0x73), "wrongBlockSequenceCounter");
    EXPECT_EQ(uds::negativeResponseName(0x78), "requestCorrectlyReceived-ResponsePending");
    EXPECT_EQ(uds::negativeResponseName(0x7F), "serviceNotSupportedInActiveSession");
}

TEST(UdsNames, unknown_codes_are_told_by_their_number) {
    EXPECT_EQ(uds::serviceName(0x27), "service 0x27");
    EXPECT_EQ(uds::negativeResponseName(0xFA), "response code 0xFA");
}

TEST(UdsNumbers, are_big_endian) {
    kavro::Bytes message = {0x31};
    uds::appendUint16(message, 0xFF01);
    uds::appendUint32(message, 0x80123456);
    EXPECT_EQ(message, (kavro::Bytes{0x31, 0xFF, 0x01, 0x80, 0x12, 0x34, 0x56}));
    EXPECT_EQ(uds::uint16At(message, 1), 0xFF01);
    EXPECT_EQ(uds::uint32At(message, 3), 0x80123456U);
}

}  // namespace
