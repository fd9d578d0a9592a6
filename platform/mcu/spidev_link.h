// The link to the microcontroller over the SPI bus, through the kernel's spidev.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/mcu/byte_link.h"

namespace kavro {

// How the bus is set: mode 0, 8 bits a word, most significant bit first, this clock.
inline constexpr std::uint32_t kSpiSpeedHz = 4'000'000;

// Opens and sets up the device at path. The lock is on the device itself.
std::unique_ptr<ByteLink> openSpidevLink(const std::string& path, std::string& error);

}  // namespace kavro
