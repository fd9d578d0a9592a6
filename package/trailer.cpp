#include "package/trailer.h"

#include <array>
#include <cstdio>
#include <utility>

#include "base/escaped_text.h"
#include "base/failure.h"
#include "package/internal/package_file.h"

namespace kavro::package {

namespace {

// Everything but the public key, the branch text and the user text.
constexpr std::size_t kFixedBytes = 130;
constexpr std::size_t kHexNumberBytes = 8;
constexpr std::size_t kMd5Bytes = 32;
constexpr std::size_t kVersionDigits = 3;

void requireLength(const char* option, const std::string& text, std::size_t limit) {
    if (text.size() <= limit) {
        return;
    }
    throw Failure(ErrorCode::kUsage,
                  std::string(option) + " '" + text + "' has " + std::to_string(text.size()) + " bytes",
                  "give at most " + std::to_string(limit));
}

std::string hexNumber(std::size_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%08zX", number);
    return text.data();
}

std::string versionDigits(const Version& version) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%03d%03d%03d%03d", version.hw, version.mpu, version.mcu,
                  version.bld);
    return text.data();
}

std::string padded(std::string text, std::size_t size) {
    text.resize(size, '\0');
    return text;
}

void requireFits(const Trailer& trailer) {
    requireLength("--stamp", trailer.stamp, kStampBytes);
    requireLength("--ident", trailer.ident, kIdentBytes);
    if (trailer.branch.empty() && !trailer.user.empty()) {
        throw Failure(ErrorCode::kUsage,
                      "--user '" + trailer.user +
                          "' cannot be stored without a branch text, "
                          "since a device stops reading at an empty one",
                      "give --branch as well");
    }
    const std::size_t used =
        kFixedBytes + trailer.publicKey.size() + trailer.branch.size() + trailer.user.size();
    if (used > kTrailerBytes) {
        throw Failure(ErrorCode::kRefused,
                      "the public key (" + std::to_string(trailer.publicKey.size()) + " bytes), --branch (" +
                          std::to_string(trailer.branch.size()) + ") and --user (" +
                          std::to_string(trailer.user.size()) + ") do not fit into the trailer",
                      "make them shorter by " + std::to_string(used - kTrailerBytes) + " bytes");
    }
}

}  // namespace

Result<void> checkTrailerFits(const Trailer& trailer) {
    return resultOf([&] { requireFits(trailer); });
}

std::string encodeTrailer(const Trailer& trailer) {
    std::string block = hexNumber(trailer.payloadBytes) + trailer.md5;
    block += hexNumber(trailer.publicKey.size()) + trailer.publicKey;
    block += padded(trailer.stamp, kStampBytes) + padded(trailer.ident, kIdentBytes);
    block += versionDigits(trailer.version);
    block += hexNumber(trailer.branch.size()) + trailer.branch;
    block += hexNumber(trailer.user.size()) + trailer.user;
    return padded(block, kTrailerBytes);
}

namespace {

constexpr const char* kHexDigits = "0123456789abcdefABCDEF";
constexpr const char* kDigits = "0123456789";

// A NUL is no digit either.
bool consistsOf(const std::string& text, const char* characters) {
    return text.find_first_not_of(characters) == std::string::npos;
}

// Takes the fields off a block, one after the other. Each step returns false when what is behind it has lost its place.
class TrailerDecoder {
  public:
    explicit TrailerDecoder(const std::string& trailerBlock) : block(trailerBlock) {}

    TrailerReading decode() {
        Trailer& trailer = reading.trailer;
        (void)(takePayloadBytes() && takeMd5() && takeCounted("public key", trailer.publicKey) &&
               takePadded("stamp", kStampBytes, trailer.stamp) &&
               takePadded("ident", kIdentBytes, trailer.ident) && takeVersions() &&
               takeCounted("branch text", trailer.branch) && takeUser() && takeUnusedEnd());
        return std::move(reading);
    }

  private:
    void fault(const std::string& text) { reading.faults.push_back(text); }

    bool take(const std::string& what, std::size_t size, std::string& field) {
        if (size > block.size() - position) {
            fault("the trailer is too short for its " + what + " of " + std::to_string(size) + " bytes");
            return false;
        }
        field = block.substr(position, size);
        position += size;
        return true;
    }

    bool takeNumber(const std::string& what, std::uint32_t& number) {
        std::string digits;
        if (!take(what, kHexNumberBytes, digits)) {
            return false;
        }
        if (!consistsOf(digits, kHexDigits)) {
            fault("the " + what + " in the trailer is '" + escaped(digits) +
                  "', which is no hexadecimal number");
            return false;
        }
        number = static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
        return true;
    }

    bool takeCounted(const std::string& what, std::string& field) {
        std::uint32_t size = 0;
        return takeNumber("length of the " + what, size) && take(what, size, field);
    }

    // The place of what follows does not depend on this number.
    bool takePayloadBytes() {
        std::uint32_t& bytes = reading.trailer.payloadBytes;
        if (!takeNumber("length of the payload", bytes)) {
            return true;
        }
        reading.payloadKnown = bytes <= kMaxPayloadBytes;
        if (!reading.payloadKnown) {
            fault("the trailer states a payload of " + std::to_string(bytes) + " bytes, a package holds " +
                  std::to_string(kMaxPayloadBytes) + " at most");
        }
        return true;
    }

    bool takeMd5() {
        std::string digits;
        if (!take("md5", kMd5Bytes, digits)) {
            return false;
        }
        if (consistsOf(digits, kHexDigits)) {
            reading.trailer.md5 = digits;
        } else {
            fault("the md5 in the trailer is '" + escaped(digits) + "', which is no hexadecimal number");
        }
        return true;
    }

    bool takePadded(const std::string& what, std::size_t size, std::string& field) {
        if (!take(what, size, field)) {
            return false;
        }
        field.erase(field.find_last_not_of('\0') + 1);
        return true;
    }

    bool takeVersions() {
        Version& version = reading.trailer.version;
        for (int* number : {&version.hw, &version.mpu, &version.mcu, &version.bld}) {
            std::string digits;
            if (!take("versions", kVersionDigits, digits)) {
                return false;
            }
            if (consistsOf(digits, kDigits)) {
                *number = std::stoi(digits);
            } else {
                fault("a version in the trailer is '" + escaped(digits) +
                      "', which is no number of three digits");
            }
        }
        return true;
    }

    bool takeUser() {
        if (!takeCounted("user text", reading.trailer.user)) {
            return false;
        }
        if (reading.trailer.branch.empty() && !reading.trailer.user.empty()) {
            fault("the trailer has a user text without a branch text, and no device reads it then");
        }
        return true;
    }

    bool takeUnusedEnd() {
        if (block.find_first_not_of('\0', position) != std::string::npos) {
            fault("the unused end of the trailer does not consist of NULs");
        }
        return true;
    }

    const std::string& block;
    std::size_t position = 0;
    TrailerReading reading;
};

}  // namespace

TrailerReading decodeTrailer(const std::string& block) {
    return TrailerDecoder(block).decode();
}

Result<TrailerReading> readTrailer(const std::filesystem::path& package) {
    return resultOf([&] { return decodeTrailer(readTrailerBlock(openPackage(package), package)); });
}

std::string readVersion(const std::filesystem::path& package) {
    const Result<TrailerReading> reading = readTrailer(package);
    return reading.ok() && reading.value().faults.empty() ? formatVersion(reading.value().trailer.version)
                                                          : "";
}

}  // namespace kavro::package
