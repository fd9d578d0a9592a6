// The trailer of a package, as a device reads it and as the tool does. An input is the trailer's text; NULs follow up to
// its full length.

#include <cstring>

#include "common/utility.h"
#include "package/trailer.h"
#include "tests/fuzz/fuzz.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace {

std::string writtenKey;
bool keyWasWritten = false;

}  // namespace

// In the place of the service: the key would go to a fixed path of this machine.
long COMMON_YR::writeFile(const char* /*path*/, void* data, unsigned long size, bool /*flag*/) {
    writtenKey.assign(static_cast<const char*>(data), size);
    keyWasWritten = true;
    return static_cast<long>(size);
}

namespace {

using fuzz::require;
using kavro::package::kMaxPayloadBytes;
using kavro::package::kPackageBytes;
using kavro::package::kTrailerBytes;
using kavro::package::Trailer;
using kavro::package::TrailerReading;

template <std::size_t size>
bool isTerminated(const char (&field)[size]) {
    return std::memchr(field, '\0', size) != nullptr;
}

// The field without the NULs that it is padded with.
template <std::size_t size>
std::string paddedText(const char (&field)[size]) {
    std::string text(field, size - 1);
    text.erase(text.find_last_not_of('\0') + 1);
    return text;
}

// As a device keeps it: the first bytes, up to a NUL.
std::string keptText(const std::string& text) {
    // cppcheck-suppress stlcstrReturn
    return text.substr(0, 127).c_str();
}

void requireSaneReading(const _UPGRADE_PKG_T& info, const std::string& block) {
    require(info.pkg_file_len <= kMaxPayloadBytes, "a payload does not reach into the trailer");
    require(std::size_t{114} + info.pubkey_len <= kTrailerBytes, "a key leaves room for the versions");
    require(keyWasWritten && writtenKey == block.substr(48, info.pubkey_len),
            "the key is that of the trailer");
    require(isTerminated(info.md5) && isTerminated(info.stamp) && isTerminated(info.ident) &&
                isTerminated(info.branch) && isTerminated(info.user),
            "every text has an end");
    for (const int number : {info.version.hw, info.version.mpu, info.version.mcu, info.version.bld}) {
        require(number >= -99 && number <= 999, "a version has three characters");
    }
}

void requireSameReading(const _UPGRADE_PKG_T& info, const Trailer& trailer) {
    require(info.pkg_file_len == trailer.payloadBytes, "both read the same length of the payload");
    require(info.md5 == trailer.md5, "both read the same md5");
    require(info.pubkey_len == trailer.publicKey.size() && writtenKey == trailer.publicKey,
            "both read the same key");
    require(paddedText(info.stamp) == trailer.stamp && paddedText(info.ident) == trailer.ident,
            "both read the same stamp and ident");
    require(info.version.hw == trailer.version.hw && info.version.mpu == trailer.version.mpu &&
                info.version.mcu == trailer.version.mcu && info.version.bld == trailer.version.bld,
            "both read the same versions");
    require(info.branch == keptText(trailer.branch), "both read the same branch text");
    require(info.user == keptText(trailer.user), "both read the same user text");
}

void requireRoundTrip(const Trailer& trailer) {
    require(kavro::package::checkTrailerFits(trailer).ok(), "what was read fits");
    const std::string block = kavro::package::encodeTrailer(trailer);
    require(block.size() == kTrailerBytes, "a trailer has its length");
    const TrailerReading again = kavro::package::decodeTrailer(block);
    require(again.faults.empty() && again.payloadKnown, "what is written can be read");
    require(kavro::package::encodeTrailer(again.trailer) == block, "what is read is what was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::MemoryFile package;
    std::string block(reinterpret_cast<const char*>(data), size);
    block.resize(kTrailerBytes, '\0');
    package.fill(block, kMaxPayloadBytes, kPackageBytes);

    keyWasWritten = false;
    _UPGRADE_PKG_T info;
    const bool deviceTakesIt = read_info_form_pkg(info, package.path()) == 0;
    if (deviceTakesIt) {
        requireSaneReading(info, block);
    }
    const TrailerReading reading = kavro::package::decodeTrailer(block);
    require(reading.payloadKnown || !reading.faults.empty(), "an unknown payload is a fault");
    if (reading.faults.empty()) {
        require(deviceTakesIt, "a device takes a trailer in which the tool finds no fault");
        requireSameReading(info, reading.trailer);
        requireRoundTrip(reading.trailer);
    }
    return 0;
}
