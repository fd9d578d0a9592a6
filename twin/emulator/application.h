// The application in the emulated flash memory: which one would run, and how a memory is made with one.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "base/mcu_image.h"
#include "platform/mcu/frame.h"

namespace kavro::emulator {

// That of zlib, over length bytes from address on, which must be within the memory.
std::uint32_t crcOf(const Bytes& memory, std::size_t address, std::size_t length);

// The bytes of the application's record.
using ApplicationRecord = std::array<std::uint8_t, kMcuRecordBytes>;
ApplicationRecord applicationRecord(std::uint32_t length, std::uint32_t crc);

// The version in the header of a whole flash memory, whatever the record says; nothing without a valid header.
std::optional<int> headerVersionIn(const Bytes& flash);

// What the boot loader does at a start: the version of the application that it runs; nothing when the record,
// its checksum or the header does not hold.
std::optional<int> runnableVersion(const Bytes& flash);

// An application of nothing but a header and a few recognisable bytes.
Bytes minimalApplication(int version);

// The application of an S-record file as it lies in flash, gaps erased. Nothing, with the reason, when the
// microcontroller could not run it.
std::optional<Bytes> applicationImage(const std::string& path, std::string& error);

// The content of a flash memory: boot loader and, unless it is empty, the application with its record.
Bytes flashWith(const Bytes& application);

}  // namespace kavro::emulator
