// The link to an emulated microcontroller, which listens on a Unix stream socket.
#pragma once

#include <memory>
#include <string>

#include "platform/mcu/byte_link.h"

namespace kavro {

// Connects to the socket at path, which parseLinkAddress() has accepted. The lock is on PATH.lock, which stays.
std::unique_ptr<ByteLink> openUnixLink(const std::string& path, std::string& error);

}  // namespace kavro
