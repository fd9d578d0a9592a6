#include "package/version.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>

namespace kavro::package {

namespace {

constexpr std::size_t kMostDigits = 3;  // so every number read is within range

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads a number of one to three digits that the text begins with and takes it off; negative when there is
// none.
int takeNumber(std::string& text) {
    std::size_t digits = 0;
    while (digits < std::min(text.size(), kMostDigits) && isDigit(text[digits])) {
        ++digits;
    }
    if (digits == 0) {
        return -1;
    }
    const int number = std::stoi(text.substr(0, digits));
    text.erase(0, digits);
    return number;
}

bool takeCharacter(std::string& text, char wanted) {
    if (text.empty() || text.front() != wanted) {
        return false;
    }
    text.erase(0, 1);
    return true;
}

}  // namespace

Result<Version> parseVersion(const std::string& text) {
    std::string rest = text;
    takeCharacter(rest, 'V');
    Version version;
    bool valid = true;
    for (int* number : {&version.hw, &version.mpu, &version.mcu, &version.bld}) {
        valid = valid && (number == &version.hw || takeCharacter(rest, '.'));
        *number = takeNumber(rest);
        valid = valid && *number >= 0;
    }
    if (!valid || !rest.empty()) {
        return Error{ErrorCode::kUsage,
                     "'" + text + "' is not a version",
                     "give four numbers from 0 to 999 as HW.MPU.MCU.BLD, for example 1.105.8.3",
                     {},
                     {}};
    }
    return version;
}

std::string formatVersion(const Version& version) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "V%02d.%03d.%03d.%03d", version.hw, version.mpu, version.mcu,
                  version.bld);
    return text.data();
}

}  // namespace kavro::package
