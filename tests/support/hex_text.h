// Bytes as a test writes them: "62 F1 89".
#pragma once

#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

inline std::vector<std::uint8_t> bytesOf(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    std::istringstream words(text);
    unsigned byte = 0;
    while (words >> std::hex >> byte) {
        bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    return bytes;
}

inline std::string hexOf(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += (text.empty() ? "" : " ") + std::string(digits);
    }
    return text;
}

}  // namespace testsupport
