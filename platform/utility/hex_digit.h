// Hexadecimal digits, whatever the process's locale.
#pragma once

namespace kavro {

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

}  // namespace kavro
