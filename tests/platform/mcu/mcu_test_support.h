// S-records and microcontroller applications made to measure.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/mcu_image.h"

namespace testsupport {

using Bytes = std::vector<std::uint8_t>;

inline std::string hexByte(unsigned value) {
    std::array<char, 3> text{};
    std::snprintf(text.data(), text.size(), "%02X", value & 0xFFU);
    return text.data();
}

// One S-record without its line end: type is the digit behind the S.
inline std::string sRecord(int type, std::uint32_t address, const Bytes& data = {}) {
    constexpr std::array<unsigned, 10> kAddressBytes = {2, 2, 3, 4, 2, 2, 3, 4, 3, 2};
    const unsigned addressBytes = kAddressBytes.at(static_cast<std::size_t>(type));
    Bytes bytes = {static_cast<std::uint8_t>(addressBytes + data.size() + 1)};
    for (unsigned index = addressBytes; index-- > 0;) {
        bytes.push_back(static_cast<std::uint8_t>(address >> (8 * index)));
    }
    bytes.insert(bytes.end(), data.begin(), data.end());
    unsigned sum = 0;
    std::string text = "S" + std::to_string(type);
    for (const std::uint8_t byte : bytes) {
        sum += byte;
        text += hexByte(byte);
    }
    return text + hexByte(~sum);
}

// A whole S-record file of the segments.
inline std::string sRecordFile(const std::vector<kavro::Segment>& segments) {
    constexpr std::size_t kDataBytes = 32;
    std::string text = sRecord(0, 0, {'t', 'e', 's', 't'}) + "\n";
    for (const kavro::Segment& segment : segments) {
        for (std::size_t offset = 0; offset < segment.bytes.size(); offset += kDataBytes) {
            const std::size_t size = std::min(kDataBytes, segment.bytes.size() - offset);
            const auto begin = segment.bytes.begin() + static_cast<long>(offset);
            text += sRecord(3, segment.address + static_cast<std::uint32_t>(offset),
                            Bytes(begin, begin + static_cast<long>(size))) +
                    "\n";
        }
    }
    return text + sRecord(7, 0) + "\n";
}

// An application: a valid header of that version, then bytes that differ from version to version.
inline std::vector<kavro::Segment> applicationOf(std::uint32_t version, std::size_t bodyBytes = 10000) {
    Bytes bytes(kavro::kMcuMagic.begin(), kavro::kMcuMagic.end());
    for (unsigned index = 0; index < 4; ++index) {
        bytes.push_back(static_cast<std::uint8_t>(version >> (8 * index)));
    }
    bytes.resize(kavro::kMcuHeaderBytes, 0);
    for (std::size_t index = 0; index < bodyBytes; ++index) {
        bytes.push_back(static_cast<std::uint8_t>(index * 7 + version));
    }
    return {{kavro::kMcuApplicationStart, bytes}};
}

inline std::vector<kavro::Segment> flashDriver() {
    return {{kavro::kMcuRamStart, Bytes(512, 0x5A)}};
}

}  // namespace testsupport
