// Hexadecimal digits, whatever the process's locale.
#pragma once

#include <string>

namespace kavro {

inline constexpr const char* kLowerHexDigits = "0123456789abcdef";

// The value of a hexadecimal digit in either case; negative for any other character.
constexpr int hexDigit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    if (character >= 'a' && character <= 'f') {
        return character - 'a' + 10;
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    return -1;
}

// Two lower-case digits for each of the bytes, which are characters of any sign.
template <typename Bytes>
std::string hexText(const Bytes& bytes) {
    std::string text;
    for (const auto element : bytes) {
        const auto byte = static_cast<unsigned char>(element);
        text += {kLowerHexDigits[byte >> 4U], kLowerHexDigits[byte & 0xFU]};
    }
    return text;
}

}  // namespace kavro
