#include "platform/mcu/frame.h"

#include <zlib.h>

#include <utility>

namespace kavro {
namespace {

constexpr std::uint8_t kFrameEnd = 0;
constexpr std::size_t kSequenceBytes = 1;
constexpr std::size_t kCrcBytes = 4;
constexpr std::size_t kMaxContentBytes = kSequenceBytes + kMaxMessageBytes + kCrcBytes;

// A code byte tells where the next zero was: so many bytes on. The largest one stands for a whole group of bytes
// without a zero.
constexpr std::uint8_t kWholeGroup = 0xFF;
constexpr std::size_t kMaxStuffedBytes = kMaxContentBytes + kMaxContentBytes / (kWholeGroup - 1) + 1;

std::uint32_t crcOf(const std::uint8_t* data, std::size_t size) {
    return static_cast<std::uint32_t>(::crc32_z(0, data, size));
}

void appendCrc(Bytes& content) {
    const std::uint32_t crc = crcOf(content.data(), content.size());
    for (std::size_t index = 0; index < kCrcBytes; ++index) {
        content.push_back(static_cast<std::uint8_t>(crc >> (8 * index)));
    }
}

// Whether the content ends with the CRC of what comes before it.
bool crcHolds(const Bytes& content) {
    const std::size_t size = content.size() - kCrcBytes;
    const std::uint32_t crc = crcOf(content.data(), size);
    for (std::size_t index = 0; index < kCrcBytes; ++index) {
        if (content[size + index] != static_cast<std::uint8_t>(crc >> (8 * index))) {
            return false;
        }
    }
    return true;
}

Bytes stuff(const Bytes& content) {
    Bytes result;
    result.reserve(kMaxStuffedBytes + 1);
    std::size_t codeAt = 0;
    result.push_back(1);
    for (const std::uint8_t byte : content) {
        if (result[codeAt] == kWholeGroup) {
            codeAt = result.size();
            result.push_back(1);
        }
        if (byte == 0) {
            codeAt = result.size();
            result.push_back(1);
        } else {
            result.push_back(byte);
            ++result[codeAt];
        }
    }
    return result;
}

// Nothing when a code byte leads beyond the end.
std::optional<Bytes> unstuff(const Bytes& stuffed) {
    Bytes content;
    content.reserve(stuffed.size());
    std::size_t index = 0;
    while (index < stuffed.size()) {
        const std::uint8_t code = stuffed[index];
        const std::size_t groupEnd = index + code;
        if (groupEnd > stuffed.size()) {
            return std::nullopt;
        }
        content.insert(content.end(), stuffed.begin() + static_cast<long>(index) + 1,
                       stuffed.begin() + static_cast<long>(groupEnd));
        index = groupEnd;
        if (code != kWholeGroup && index < stuffed.size()) {
            content.push_back(0);
        }
    }
    return content;
}

std::optional<Frame> decode(const Bytes& stuffed) {
    const std::optional<Bytes> content = unstuff(stuffed);
    if (!content || content->size() <= kSequenceBytes + kCrcBytes || content->size() > kMaxContentBytes ||
        !crcHolds(*content)) {
        return std::nullopt;
    }
    return Frame{content->front(),
                 Bytes(content->begin() + kSequenceBytes, content->end() - static_cast<long>(kCrcBytes))};
}

}  // namespace

Bytes encodeFrame(const Frame& frame) {
    Bytes content;
    content.reserve(kSequenceBytes + frame.message.size() + kCrcBytes);
    content.push_back(frame.sequence);
    content.insert(content.end(), frame.message.begin(), frame.message.end());
    appendCrc(content);
    Bytes wire = stuff(content);
    wire.push_back(kFrameEnd);
    return wire;
}

std::optional<Frame> FrameReader::take(std::uint8_t byte) {
    if (byte != kFrameEnd) {
        if (stuffed.size() < kMaxStuffedBytes) {
            stuffed.push_back(byte);
        } else {
            tooLong = true;
        }
        return std::nullopt;
    }
    const Bytes arrived = std::exchange(stuffed, {});
    const bool skipped = std::exchange(tooLong, false);
    if (arrived.empty()) {
        return std::nullopt;
    }
    std::optional<Frame> frame = skipped ? std::nullopt : decode(arrived);
    if (!frame) {
        ++damaged;
    }
    return frame;
}

}  // namespace kavro
