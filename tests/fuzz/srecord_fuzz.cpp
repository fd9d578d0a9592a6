// S-record files. An input is such a file.

#include <array>
#include <cstdio>

#include "base/mcu_image.h"
#include "base/srecord.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::Segment;
using kavro::SRecordFile;

void requireSegments(const SRecordFile& file) {
    std::uint64_t end = 0;
    bool first = true;
    for (const Segment& segment : file.segments) {
        require(!segment.bytes.empty(), "a segment holds data");
        require(first || segment.address > end, "segments are in order and do not touch");
        require(segment.end() <= std::uint64_t{1} << 32, "a segment lies within the address space");
        end = segment.end();
        first = false;
    }
}

// One S3 record with its checksum.
std::string dataRecord(std::uint32_t address, const std::uint8_t* data, std::size_t size) {
    std::string bytes = {static_cast<char>(size + 5), static_cast<char>(address >> 24),
                         static_cast<char>(address >> 16), static_cast<char>(address >> 8),
                         static_cast<char>(address)};
    bytes.append(reinterpret_cast<const char*>(data), size);
    unsigned sum = 0;
    std::string text = "S3";
    std::array<char, 3> digits{};
    for (const char byte : bytes) {
        sum += static_cast<unsigned char>(byte);
        std::snprintf(digits.data(), digits.size(), "%02X", static_cast<unsigned char>(byte));
        text += digits.data();
    }
    std::snprintf(digits.data(), digits.size(), "%02X", ~sum & 0xFF);
    return text + digits.data() + "\n";
}

std::string written(const SRecordFile& file) {
    constexpr std::size_t kRecordBytes = 32;
    std::string text;
    for (const Segment& segment : file.segments) {
        for (std::size_t at = 0; at < segment.bytes.size(); at += kRecordBytes) {
            text += dataRecord(segment.address + static_cast<std::uint32_t>(at), &segment.bytes[at],
                               std::min(kRecordBytes, segment.bytes.size() - at));
        }
    }
    return text + "S70500000000FA\n";
}

bool sameSegments(const std::vector<Segment>& left, const std::vector<Segment>& right) {
    return std::equal(
        left.begin(), left.end(), right.begin(), right.end(),
        [](const Segment& a, const Segment& b) { return a.address == b.address && a.bytes == b.bytes; });
}

void requireRoundTrip(const SRecordFile& file) {
    static fuzz::MemoryFile copy;
    copy.fill(written(file));
    std::string error;
    const auto again = kavro::readSRecords(copy.path(), error);
    require(again && sameSegments(again->segments, file.segments), "data reads as it was written: " + error);
}

// What is accepted for a memory lies in it, and is what the file holds.
void requireImage(const std::optional<std::vector<Segment>>& image, const std::optional<SRecordFile>& file,
                  const kavro::AddressRange& memory, const std::string& error) {
    require(image.has_value() == error.empty(), "an error is told, and only then");
    if (!image) {
        return;
    }
    require(file && sameSegments(*image, file->segments), "an image is what the file holds");
    require(!image->empty() && image->front().address >= memory.start && image->back().end() <= memory.end(),
            "an image lies in its memory");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzz::MemoryFile source;
    source.fill(std::string(reinterpret_cast<const char*>(data), size));
    std::string error;
    const std::optional<SRecordFile> file = kavro::readSRecords(source.path(), error);
    require(file.has_value() == error.empty(), "an error is told, and only then");
    if (file) {
        requireSegments(*file);
        requireRoundTrip(*file);
    }

    std::string applicationError;
    const auto application = kavro::readApplication(source.path(), applicationError);
    requireImage(application, file, kavro::kMcuApplicationMemory, applicationError);
    require(!application || kavro::applicationVersion(*application).value_or(-1) >= 0,
            "an application has a version");
    std::string driverError;
    const auto driver = kavro::readFlashDriver(source.path(), driverError);
    requireImage(driver, file, kavro::kMcuDriverMemory, driverError);
    require(!application || !driver, "no file is both application and flash driver");
    return 0;
}
