#include "tests/support/tar_archive.h"

#include <cstdio>

namespace testsupport {
namespace {

// A field of a header: where it lies and how long it is.
struct Field {
    std::size_t at;
    std::size_t size;
};
constexpr Field kName = {0, 100};
constexpr Field kMode = {100, 8};
constexpr Field kUid = {108, 8};
constexpr Field kGid = {116, 8};
constexpr Field kSize = {124, 12};
constexpr Field kTime = {136, 12};
constexpr Field kChecksum = {148, 8};
constexpr Field kType = {156, 1};
constexpr Field kLink = {157, 100};
constexpr Field kMagic = {257, 8};
constexpr Field kMajor = {329, 8};
constexpr Field kMinor = {337, 8};

constexpr std::size_t kEndBlocks = 2;

void put(std::string& header, const Field& field, const std::string& text) {
    const std::string fitting = text.substr(0, field.size);
    header.replace(field.at, fitting.size(), fitting);
}

void putNumber(std::string& header, const Field& field, unsigned long number) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%0*lo", static_cast<int>(field.size - 1), number);
    put(header, field, digits);
}

std::size_t wholeBlocks(std::size_t bytes) {
    return (bytes + kTarBlockBytes - 1) / kTarBlockBytes * kTarBlockBytes;
}

}  // namespace

void repairChecksum(std::string& archive, std::size_t headerAt) {
    unsigned long sum = 0;
    for (std::size_t index = 0; index < kTarBlockBytes; ++index) {
        const bool inChecksum = index >= kChecksum.at && index < kChecksum.at + kChecksum.size;
        sum += inChecksum ? ' ' : static_cast<unsigned char>(archive.at(headerAt + index));
    }
    char digits[16];
    std::snprintf(digits, sizeof digits, "%06lo", sum);
    archive.replace(headerAt + kChecksum.at, kChecksum.size, std::string(digits) + '\0' + ' ');
}

std::string tarEntry(const TarEntry& entry) {
    std::string header(kTarBlockBytes, '\0');
    put(header, kName, entry.name);
    putNumber(header, kMode, entry.mode);
    putNumber(header, kUid, entry.owner);
    putNumber(header, kGid, entry.owner);
    putNumber(header, kSize, entry.size < 0 ? entry.content.size() : static_cast<unsigned long>(entry.size));
    putNumber(header, kTime, 0);
    put(header, kType, std::string(1, entry.type));
    put(header, kLink, entry.link);
    put(header, kMagic, std::string("ustar\0", 6) + "00");
    putNumber(header, kMajor, entry.major);
    putNumber(header, kMinor, entry.minor);
    repairChecksum(header, 0);
    std::string content = entry.content;
    content.resize(wholeBlocks(content.size()), '\0');
    return header + content;
}

std::string tarArchive(const std::vector<TarEntry>& entries) {
    std::string archive;
    for (const TarEntry& entry : entries) {
        archive += tarEntry(entry);
    }
    return archive + std::string(kEndBlocks * kTarBlockBytes, '\0');
}

std::vector<std::size_t> headersOf(const std::vector<TarEntry>& entries) {
    std::vector<std::size_t> headers;
    std::size_t at = 0;
    for (const TarEntry& entry : entries) {
        headers.push_back(at);
        at += kTarBlockBytes + wholeBlocks(entry.content.size());
    }
    return headers;
}

std::string paxAttribute(const std::string& keyword, const std::string& value) {
    const std::string text = " " + keyword + "=" + value + "\n";
    std::size_t length = text.size() + 1;
    while (std::to_string(length).size() + text.size() != length) {
        length = std::to_string(length).size() + text.size();
    }
    return std::to_string(length) + text;
}

}  // namespace testsupport
