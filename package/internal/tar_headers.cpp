#include "package/internal/tar_headers.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/escaped_text.h"

namespace kavro::package {

namespace {

struct Number {
    const char* name;
    std::size_t offset;
    std::size_t size;
};
constexpr std::size_t kNameBytes = 100;
constexpr std::size_t kSizeAt = 124;
constexpr std::size_t kSizeBytes = 12;
constexpr std::size_t kTypeAt = 156;
constexpr Number kSparseSize = {"size with its holes", 483, 12};
constexpr std::size_t kSparseGoesOnAt = 482;       // in a header
constexpr std::size_t kSparseGoesOnInMapAt = 504;  // in a block of the map behind it

constexpr std::array<Number, 5> kNumbers = {{
    {"mode", 100, 8},
    {"owner", 108, 8},
    {"group", 116, 8},
    {"size", kSizeAt, kSizeBytes},
    {"time", 136, 12},
}};

// Regular files ('0', NUL, '7'; 'S' sparse), symbolic links, devices, directories and fifos; names and attributes of the
// entry behind ('L', 'K', 'x'). Not hard links, and not 'g', attributes of all that follow: either could put other contents
// under a component's name.
constexpr char kKnownTypes[] = {'0', '\0', '7', 'S', '2', '3', '4', '5', '6', 'L', 'K', 'x'};

bool isOctal(char character) {
    return character >= '0' && character <= '7';
}

}  // namespace

void TarHeaderCheck::take(const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0 && !ended && firstFault.empty()) {
        std::size_t taken = 0;
        if (contentsLeft > 0) {
            taken = static_cast<std::size_t>(std::min<std::uint64_t>(size, contentsLeft));
            contentsLeft -= taken;
        } else {
            taken = std::min(size, block.size() - filled);
            std::memcpy(block.data() + filled, bytes, taken);
            filled += taken;
        }
        bytes += taken;
        size -= taken;
        if (filled == block.size()) {
            filled = 0;
            checkHeader();
        }
    }
}

void TarHeaderCheck::checkHeader() {
    if (sparseMap) {
        sparseMap = block[kSparseGoesOnInMapAt] != 0;
        contentsLeft = sparseMap ? 0 : contentsBehindMap;
        return;
    }
    ended = std::all_of(block.begin(), block.end(), [](char byte) { return byte == 0; });
    if (ended) {
        return;
    }
    checkNumbers();
    const char type = block[kTypeAt];
    if (firstFault.empty() &&
        std::find(std::begin(kKnownTypes), std::end(kKnownTypes), type) == std::end(kKnownTypes)) {
        firstFault = "an entry has the type '" + escaped(std::string(1, type)) +
                     "', which no entry of a package may have";
    }
    contentsLeft = storedBytes();
    if (type == 'S' && block[kSparseGoesOnAt] != 0) {
        sparseMap = true;
        contentsBehindMap = contentsLeft;
        contentsLeft = 0;
    }
}

void TarHeaderCheck::checkNumbers() {
    std::vector<Number> numbers(kNumbers.begin(), kNumbers.end());
    if (block[kTypeAt] == 'S') {
        numbers.push_back(kSparseSize);
    }
    for (const Number& number : numbers) {
        const std::string fault = numberFault(number.offset, number.size);
        if (!fault.empty()) {
            const std::string name(block.data(), strnlen(block.data(), kNameBytes));
            firstFault = "the header of '" + escaped(name) + "' has " + fault + " for its " + number.name;
            return;
        }
    }
}

// Octal digits, blanks in front, a blank or NUL behind unless they fill the field; or, but for the size, a binary number
// with its first bit set.
std::string TarHeaderCheck::numberFault(std::size_t offset, std::size_t size) const {
    const char* const begin = block.data() + offset;
    const char* const end = begin + size;
    constexpr char kPositive[] = {'\x80', 0, 0, 0};
    constexpr char kNegative[] = {'\xff', '\xff', '\xff', '\xff'};
    const bool wide = size > 8;  // than the number that it stands for
    const std::size_t prefix = wide ? sizeof kPositive : 1;
    if (offset != kSizeAt && (std::memcmp(begin, kPositive, prefix) == 0 ||
                              (wide && std::memcmp(begin, kNegative, prefix) == 0))) {
        return {};
    }
    const char* const digits = std::find_if(begin, end, [](char byte) { return byte != ' '; });
    const char* const behind = std::find_if_not(digits, end, isOctal);
    if (behind != digits && (behind == end || *behind == ' ' || *behind == '\0')) {
        return {};
    }
    return "'" + escaped(std::string(begin, end)) + "'";
}

// What lies between this header and the next, in whole blocks. The size is known to be a number.
std::uint64_t TarHeaderCheck::storedBytes() const {
    std::uint64_t bytes = 0;
    for (std::size_t index = kSizeAt; index < kSizeAt + kSizeBytes; ++index) {
        if (isOctal(block[index])) {
            bytes = bytes << 3U | static_cast<std::uint64_t>(block[index] - '0');
        } else if (block[index] != ' ' || bytes != 0) {
            break;
        }
    }
    return (bytes + block.size() - 1) / block.size() * block.size();
}

}  // namespace kavro::package
