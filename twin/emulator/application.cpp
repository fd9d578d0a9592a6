#include "twin/emulator/application.h"

#include <zlib.h>

#include <algorithm>

#include "twin/emulator/flash_memory.h"

namespace kavro::emulator {
namespace {

constexpr std::size_t kNumberBytes = 4;
constexpr std::size_t kMinimalCodeBytes = 240;

template <typename Iterator>
void putLittleEndian(std::uint32_t number, Iterator where) {
    for (std::size_t index = 0; index < kNumberBytes; ++index) {
        *where++ = static_cast<std::uint8_t>(number >> (8 * index));
    }
}

std::uint32_t littleEndianAt(const Bytes& memory, std::size_t address) {
    std::uint32_t number = 0;
    for (std::size_t index = kNumberBytes; index-- > 0;) {
        number = number << 8 | memory[address + index];
    }
    return number;
}

}  // namespace

std::uint32_t crcOf(const Bytes& memory, std::size_t address, std::size_t length) {
    return static_cast<std::uint32_t>(::crc32_z(0, memory.data() + address, length));
}

ApplicationRecord applicationRecord(std::uint32_t length, std::uint32_t crc) {
    ApplicationRecord record{};
    const auto numbers = std::copy(kMcuRecordMagic.begin(), kMcuRecordMagic.end(), record.begin());
    putLittleEndian(length, numbers);
    putLittleEndian(crc, numbers + kNumberBytes);
    return record;
}

std::optional<int> headerVersionIn(const Bytes& flash) {
    std::array<std::uint8_t, kMcuHeaderBytes> header{};
    std::copy_n(flash.begin() + kMcuApplicationStart, header.size(), header.begin());
    return headerVersion(header);
}

std::optional<int> runnableVersion(const Bytes& flash) {
    const std::uint32_t length = littleEndianAt(flash, kMcuRecordStart + kMcuMagicBytes);
    if (length < kMcuHeaderBytes || length > kMcuApplicationBytes) {
        return std::nullopt;
    }
    const ApplicationRecord record = applicationRecord(length, crcOf(flash, kMcuApplicationStart, length));
    if (!std::equal(record.begin(), record.end(), flash.begin() + kMcuRecordStart)) {
        return std::nullopt;
    }
    return headerVersionIn(flash);
}

Bytes minimalApplication(int version) {
    Bytes application(kMcuHeaderBytes + kMinimalCodeBytes);
    const auto number = std::copy(kMcuMagic.begin(), kMcuMagic.end(), application.begin());
    putLittleEndian(static_cast<std::uint32_t>(version), number);
    for (std::size_t index = kMcuHeaderBytes; index < application.size(); ++index) {
        application[index] = static_cast<std::uint8_t>(index);
    }
    return application;
}

std::optional<Bytes> applicationImage(const std::string& path, std::string& error) {
    const std::optional<std::vector<Segment>> segments = readApplication(path, error);
    if (!segments) {
        return std::nullopt;
    }
    Bytes application(segments->back().end() - kMcuApplicationStart, kMcuErasedByte);
    for (const Segment& segment : *segments) {
        std::copy(segment.bytes.begin(), segment.bytes.end(),
                  application.begin() + static_cast<long>(segment.address - kMcuApplicationStart));
    }
    return application;
}

Bytes flashWith(const Bytes& application) {
    Bytes flash(kMcuFlashBytes, kMcuErasedByte);
    for (std::size_t address = 0; address < kMcuRecordStart; ++address) {
        flash[address] = static_cast<std::uint8_t>(kBootLoaderText[address % kBootLoaderText.size()]);
    }
    if (application.empty()) {
        return flash;
    }
    std::copy(application.begin(), application.end(), flash.begin() + kMcuApplicationStart);
    const auto length = static_cast<std::uint32_t>(application.size());
    const ApplicationRecord record = applicationRecord(length, crcOf(flash, kMcuApplicationStart, length));
    std::copy(record.begin(), record.end(), flash.begin() + kMcuRecordStart);
    return flash;
}

}  // namespace kavro::emulator
