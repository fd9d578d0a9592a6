#include "tools/upgradectl/package_version.h"

#include <array>
#include <cstdio>
#include <regex>

#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

namespace {

ToolError badVersion(const std::string& text) {
    return {ExitCode::kUsage, "'" + text + "' is not a version",
            "give four numbers from 0 to 999 as HW.MPU.MCU.BLD, for example 1.105.8.3"};
}

}  // namespace

PackageVersion parseVersion(const std::string& text) {
    // Up to three digits each, so every match is within range.
    static const std::regex kForm("V?([0-9]{1,3})\\.([0-9]{1,3})\\.([0-9]{1,3})\\.([0-9]{1,3})");
    std::smatch numbers;
    if (!std::regex_match(text, numbers, kForm)) {
        throw badVersion(text);
    }
    return {std::stoi(numbers[1]), std::stoi(numbers[2]), std::stoi(numbers[3]), std::stoi(numbers[4])};
}

std::string formatVersion(const PackageVersion& version) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "V%02d.%03d.%03d.%03d", version.hw, version.mpu, version.mcu,
                  version.bld);
    return text.data();
}

}  // namespace upgradectl
