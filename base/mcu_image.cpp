#include "base/mcu_image.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kavro {
namespace {

constexpr std::size_t kVersionOffset = kMcuMagicBytes;
constexpr std::size_t kVersionBytes = 4;

bool checkRange(const std::vector<Segment>& segments, const AddressRange& range, std::string& error) {
    if (segments.empty()) {
        error = "holds no data";
        return false;
    }
    for (const Segment& segment : segments) {
        error = outsideOf(range, segment.address, segment.end());
        if (!error.empty()) {
            return false;
        }
    }
    return true;
}

// Reads a file of which all data must lie in the range, and so cannot be more than that, and has it checked.
template <typename Check>
std::optional<std::vector<Segment>> readChecked(const std::string& path, const AddressRange& range,
                                                const Check& check, std::string& error) {
    std::optional<SRecordFile> file = readSRecords(path, error, range, static_cast<std::size_t>(range.bytes));
    if (!file) {
        return std::nullopt;
    }
    if (!check(file->segments, error)) {
        error.insert(0, path + ": ");
        return std::nullopt;
    }
    return std::move(file->segments);
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
    if (!checkRange(segments, kMcuApplicationMemory, error)) {
        return false;
    }
    if (!applicationVersion(segments)) {
        error = "no valid application header at " + hexAddress(kMcuApplicationStart);
        return false;
    }
    return true;
}

bool checkFlashDriver(const std::vector<Segment>& segments, std::string& error) {
    return checkRange(segments, kMcuDriverMemory, error);
}

std::optional<std::vector<Segment>> readApplication(const std::string& path, std::string& error) {
    return readChecked(path, kMcuApplicationMemory, checkApplication, error);
}

std::optional<std::vector<Segment>> readFlashDriver(const std::string& path, std::string& error) {
    return readChecked(path, kMcuDriverMemory, checkFlashDriver, error);
}

}  // namespace kavro
