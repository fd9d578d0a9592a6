// The microcontroller's memory map and the header of its application: what a firmware must look like to be
// accepted, and where the version stands that the microcontroller reports. docs/mcu.md shows it with an
// example.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/srecord.h"

namespace kavro {

// Flash: the boot loader, which is never written, the record of the application, then the application up to the
// end. Erased by sectors.
inline constexpr std::uint32_t kMcuFlashBytes = 0x00080000;
inline constexpr std::uint32_t kMcuSectorBytes = 0x00001000;
inline constexpr std::uint32_t kMcuRecordStart = 0x00007000;
inline constexpr std::uint32_t kMcuApplicationStart = 0x00008000;
inline constexpr std::uint32_t kMcuApplicationBytes = kMcuFlashBytes - kMcuApplicationStart;
inline constexpr std::uint8_t kMcuErasedByte = 0xFF;

// RAM: where the flash driver runs while the application is programmed.
inline constexpr std::uint32_t kMcuRamStart = 0x20000000;
inline constexpr std::uint32_t kMcuRamBytes = 0x00010000;

// Where the data of the two files must lie.
inline constexpr AddressRange kMcuApplicationMemory = {kMcuApplicationStart, kMcuApplicationBytes};
inline constexpr AddressRange kMcuDriverMemory = {kMcuRamStart, kMcuRamBytes};

// The application begins with a header of 16 bytes: magic (8), version (4, least significant byte first),
// zero (4).
inline constexpr std::size_t kMcuHeaderBytes = 16;
inline constexpr std::size_t kMcuMagicBytes = 8;
inline constexpr std::array<std::uint8_t, kMcuMagicBytes> kMcuMagic = {'K', 'A', 'V', 'R',
                                                                       'O', 'M', 'C', 'U'};

// The application's record, by which the boot loader knows a whole application: magic (8), length of the
// application (4), its CRC-32 (4), the numbers least significant byte first.
inline constexpr std::size_t kMcuRecordBytes = 16;
inline constexpr std::array<std::uint8_t, kMcuMagicBytes> kMcuRecordMagic = {'K', 'A', 'V', 'R',
                                                                             'O', 'A', 'P', 'P'};

// The version in a header; nothing when these are not the bytes of a valid one. A version above 2147483647 is
// not valid, since a negative number stands for none.
std::optional<int> headerVersion(const std::array<std::uint8_t, kMcuHeaderBytes>& header);

// The version of an application; nothing when it does not hold a whole valid header at its start.
std::optional<int> applicationVersion(const std::vector<Segment>& segments);

// Whether the segments are an application: some data, all of it in the application's flash, with a valid
// header.
[[nodiscard]] bool checkApplication(const std::vector<Segment>& segments, std::string& error);

// Whether the segments are a flash driver: some data, all of it in RAM.
[[nodiscard]] bool checkFlashDriver(const std::vector<Segment>& segments, std::string& error);

// Reads an S-record file that must hold an application or a flash driver. Nothing, and a text with the file and, if
// one is to blame, the number of the line, when it does not.
std::optional<std::vector<Segment>> readApplication(const std::string& path, std::string& error);
std::optional<std::vector<Segment>> readFlashDriver(const std::string& path, std::string& error);

}  // namespace kavro
