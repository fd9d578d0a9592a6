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
#include <filesystem>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/version.h"

namespace kavro::package {

inline constexpr std::uint64_t kPackageBytes = 134217728;                         // of the whole file, always
inline constexpr std::uint64_t kTrailerBytes = 4096;                              // of its end
inline constexpr std::uint64_t kMaxPayloadBytes = kPackageBytes - kTrailerBytes;  // of its beginning, at most
inline constexpr std::size_t kStampBytes = 14;                                    // at most
inline constexpr std::size_t kIdentBytes = 40;                                    // at most

// The fields. The texts are any bytes: whoever shows one makes sure that it moves no cursor.
struct Trailer {
    std::uint32_t payloadBytes = 0;  // from the beginning of the file
    std::string md5;                 // of the payload: 32 hexadecimal digits
    std::string publicKey;           // PEM
    std::string stamp;               // up to kStampBytes; of pack() the UTC time as YYYYMMDDHHMMSS
    std::string ident;               // up to kIdentBytes, such as a commit
    Version version;                 // of what is in the package
    std::string branch;              // any length; devices keep 127 bytes
    std::string user;                // any length; devices keep 127 bytes
};

// Whether a package can carry it. An error when a text is too long for its field (usage), when there is a user text without
// a branch text, which no device would find (usage), or when everything together exceeds the trailer (refused).
KAVRO_EXPORT Result<void> checkTrailerFits(const Trailer& trailer);

// The kTrailerBytes bytes. trailer must fit.
KAVRO_EXPORT std::string encodeTrailer(const Trailer& trailer);

// What a trailer's bytes say.
struct TrailerReading {
    Trailer trailer;                  // what cannot be read is as it is by default
    bool payloadKnown = false;        // its length is a possible one
    std::vector<std::string> faults;  // sentences without a full stop; empty when every field is in order
};

// The fields of the kTrailerBytes bytes. Stricter than a device, which overlooks an unreadable branch or user text and
// what stands behind them, and follows a length that is negative as a signed number backwards: nothing else tells that a
// trailer was damaged.
KAVRO_EXPORT TrailerReading decodeTrailer(const std::string& block);

// The fields of a package's trailer, quickly: nothing else of the file is looked at. An error (refused) when the file is no
// package: another size, no regular file, unreadable. Blocks for one short read.
KAVRO_EXPORT Result<TrailerReading> readTrailer(const std::filesystem::path& package);

// In the same way the version, as formatVersion() writes it: "V01.105.008.003". Empty when the file is no package or its
// trailer has a fault.
KAVRO_EXPORT std::string readVersion(const std::filesystem::path& package);

}  // namespace kavro::package
