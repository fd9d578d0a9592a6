// The link to the microcontroller over a serial line.
#pragma once

#include <memory>
#include <string>

#include "platform/mcu/byte_link.h"

namespace kavro {

// Opens the terminal device at path and sets the line: 921600 baud, 8 data bits, no parity, one stop bit, no flow
// control. A device that has no baud rate takes any. The lock is on the device itself.
std::unique_ptr<ByteLink> openSerialLink(const std::string& path, std::string& error);

}  // namespace kavro
