// The package trailer: the last 4096 bytes of a package file, which say what the payload before them is.
//
// All numbers are text. L, B and U are the lengths of the key, the branch text and the user text:
//
//     0        8 hex digits   length of the payload in bytes
//     8        32 hex digits  md5 of the payload
//     40       8 hex digits   L
//     48       L bytes        public key (PEM)
//     48+L     14 bytes       stamp, padded with NULs
//     62+L     40 bytes       ident, padded with NULs
//     102+L    12 digits      hw, mpu, mcu, bld with three decimal digits each
//     114+L    8 hex digits   B
//     122+L    B bytes        branch text
//     122+L+B  8 hex digits   U
//     130+L+B  U bytes        user text
//     ...      to the end     NULs
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/upgradectl/package_version.h"

namespace upgradectl {

inline constexpr std::uint64_t kPackageBytes = 134217728;
inline constexpr std::uint64_t kTrailerBytes = 4096;
inline constexpr std::uint64_t kMaxPayloadBytes = kPackageBytes - kTrailerBytes;
inline constexpr std::size_t kStampBytes = 14;
inline constexpr std::size_t kIdentBytes = 40;

struct PackageTrailer {
    std::uint32_t payloadBytes = 0;
    std::string md5;  // 32 hexadecimal digits
    std::string publicKey;
    std::string stamp;
    std::string ident;
    PackageVersion version;
    std::string branch;
    std::string user;
};

// Throws ToolError when a text is too long for its field (usage), when there is a user text without a branch
// text, which no device would find (usage), or when everything together exceeds the trailer (refused).
void requireTrailerFits(const PackageTrailer& trailer);

// The kTrailerBytes bytes. trailer must fit.
std::string encodeTrailer(const PackageTrailer& trailer);

struct TrailerReading {
    PackageTrailer trailer;  // what cannot be read is as it is by default
    bool payloadKnown = false;
    std::vector<std::string>
        faults;  // whole sentences without a full stop; empty when every field is in order
};

// The fields of the kTrailerBytes bytes. Stricter than a device, which overlooks an unreadable branch or user text and
// what stands behind them, and follows a length that is negative as a signed number backwards: nothing else tells that a
// trailer was damaged.
TrailerReading decodeTrailer(const std::string& block);

}  // namespace upgradectl
