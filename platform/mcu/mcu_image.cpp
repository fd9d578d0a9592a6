#include "platform/mcu/mcu_image.h"

#include <algorithm>
#include <cstdio>
#include <limits>

namespace kavro {
namespace {

constexpr std::size_t kVersionOffset = kMcuMagicBytes;
constexpr std::size_t kVersionBytes = 4;

std::string hexAddress(std::uint64_t address) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "0x%08llX", static_cast<unsigned long long>(address));
    return text.data();
}

bool checkRange(const std::vector<Segment>& segments, std::uint32_t start, std::uint32_t bytes,
                std::string& error) {
    if (segments.empty()) {
        error = "holds no data";
        return false;
    }
    for (const Segment& segment : segments) {
        if (segment.address < start || segment.end() > std::uint64_t{start} + bytes) {
            error = "data at " + hexAddress(segment.address) + ".." + hexAddress(segment.end() - 1) +
                    " is outside of " + hexAddress(start) + ".." +
                    hexAddress(std::uint64_t{start} + bytes - 1);
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<int> headerVersion(const std::array<std::uint8_t, kMcuHeaderBytes>& header) {
    if (!std::equal(kMcuMagic.begin(), kMcuMagic.end(), header.begin())) {
        return std::nullopt;
    }
    const auto reserved = header.begin() + kVersionOffset + kVersionBytes;
    if (!std::all_of(reserved, header.end(), [](std::uint8_t byte) { return byte == 0; })) {
        return std::nullopt;
    }
    std::uint32_t version = 0;
    for (std::size_t index = kVersionBytes; index-- > 0;) {
        version = version << 8 | header[kVersionOffset + index];
    }
    if (version > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) {
        return std::nullopt;
    }
    return static_cast<int>(version);
}

std::optional<int> applicationVersion(const std::vector<Segment>& segments) {
    for (const Segment& segment : segments) {
        if (segment.address == kMcuApplicationStart && segment.bytes.size() >= kMcuHeaderBytes) {
            std::array<std::uint8_t, kMcuHeaderBytes> header{};
            std::copy_n(segment.bytes.begin(), header.size(), header.begin());
            return headerVersion(header);
        }
    }
    return std::nullopt;
}

bool checkApplication(const std::vector<Segment>& segments, std::string& error) {
    if (!checkRange(segments, kMcuApplicationStart, kMcuApplicationBytes, error)) {
        return false;
    }
    if (!applicationVersion(segments)) {
        error = "no valid application header at " + hexAddress(kMcuApplicationStart);
        return false;
    }
    return true;
}

bool checkFlashDriver(const std::vector<Segment>& segments, std::string& error) {
    return checkRange(segments, kMcuRamStart, kMcuRamBytes, error);
}

}  // namespace kavro
