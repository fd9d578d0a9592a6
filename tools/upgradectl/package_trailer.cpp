#include "tools/upgradectl/package_trailer.h"

#include <array>
#include <cstdio>

#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

namespace {

// Everything but the public key, the branch text and the user text.
constexpr std::size_t kFixedBytes = 130;

void requireLength(const char* option, const std::string& text, std::size_t limit) {
    if (text.size() <= limit) {
        return;
    }
    throw ToolError(ExitCode::kUsage,
                    std::string(option) + " '" + text + "' has " + std::to_string(text.size()) + " bytes",
                    "give at most " + std::to_string(limit));
}

std::string hexNumber(std::size_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%08zX", number);
    return text.data();
}

std::string versionDigits(const PackageVersion& version) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%03d%03d%03d%03d", version.hw, version.mpu, version.mcu,
                  version.bld);
    return text.data();
}

std::string padded(std::string text, std::size_t size) {
    text.resize(size, '\0');
    return text;
}

}  // namespace

void requireTrailerFits(const PackageTrailer& trailer) {
    requireLength("--stamp", trailer.stamp, kStampBytes);
    requireLength("--ident", trailer.ident, kIdentBytes);
    if (trailer.branch.empty() && !trailer.user.empty()) {
        throw ToolError(ExitCode::kUsage,
                        "--user '" + trailer.user +
                            "' cannot be stored without a branch text, "
                            "since a device stops reading at an empty one",
                        "give --branch as well");
    }
    const std::size_t used =
        kFixedBytes + trailer.publicKey.size() + trailer.branch.size() + trailer.user.size();
    if (used > kTrailerBytes) {
        throw ToolError(ExitCode::kRefused,
                        "the public key (" + std::to_string(trailer.publicKey.size()) +
                            " bytes), --branch (" + std::to_string(trailer.branch.size()) + ") and --user (" +
                            std::to_string(trailer.user.size()) + ") do not fit into the trailer",
                        "make them shorter by " + std::to_string(used - kTrailerBytes) + " bytes");
    }
}

std::string encodeTrailer(const PackageTrailer& trailer) {
    std::string block = hexNumber(trailer.payloadBytes) + trailer.md5;
    block += hexNumber(trailer.publicKey.size()) + trailer.publicKey;
    block += padded(trailer.stamp, kStampBytes) + padded(trailer.ident, kIdentBytes);
    block += versionDigits(trailer.version);
    block += hexNumber(trailer.branch.size()) + trailer.branch;
    block += hexNumber(trailer.user.size()) + trailer.user;
    return padded(block, kTrailerBytes);
}

}  // namespace upgradectl
