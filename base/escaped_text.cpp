#include "base/escaped_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "base/hex_digit.h"

namespace kavro {

namespace {

struct CodeRange {
    std::uint32_t first;
    std::uint32_t last;
};

// What no terminal shows as a character of its own.
constexpr std::array<CodeRange, 12> kUnprintable = {{
    {0x00, 0x1F},        // control characters
    {0x7F, 0x9F},        // delete and more control characters
    {0xAD, 0xAD},        // a hyphen that shows only at the end of a line
    {0x61C, 0x61C},      // Arabic letter mark
    {0x200B, 0x200F},    // no width; direction of writing
    {0x2028, 0x202E},    // line and paragraph ends; direction of writing
    {0x2060, 0x206F},    // no width; direction of writing
    {0xD800, 0xDFFF},    // halves of characters
    {0xFE00, 0xFE0F},    // variants of the character before
    {0xFEFF, 0xFEFF},    // byte order
    {0xFFFE, 0xFFFF},    // no characters; XML has none either
    {0xE0000, 0xE0FFF},  // tags
}};

struct Utf8Form {
    std::uint8_t mask;      // of the first byte
    std::uint8_t pattern;   // of the first byte under the mask
    std::uint32_t least;    // what needs no fewer bytes
    std::size_t followers;  // 10xxxxxx each
};
constexpr std::array<Utf8Form, 4> kUtf8Forms = {{
    {0x80, 0x00, 0x0, 0},
    {0xE0, 0xC0, 0x80, 1},
    {0xF0, 0xE0, 0x800, 2},
    {0xF8, 0xF0, 0x10000, 3},
}};
constexpr std::uint32_t kLastCode = 0x10FFFF;

bool isPrintable(std::uint32_t code) {
    return code <= kLastCode &&
           std::none_of(kUnprintable.begin(), kUnprintable.end(),
                        [code](const CodeRange& range) { return code >= range.first && code <= range.last; });
}

std::uint8_t byteAt(const std::string& text, std::size_t position) {
    return static_cast<std::uint8_t>(text[position]);
}

// How many bytes the printable character at the position takes; 0 when there is none.
std::size_t printableBytes(const std::string& text, std::size_t position) {
    const std::uint8_t first = byteAt(text, position);
    for (const Utf8Form& form : kUtf8Forms) {
        if ((first & form.mask) != form.pattern) {
            continue;
        }
        std::uint32_t code = first & static_cast<std::uint8_t>(~form.mask);
        for (std::size_t follower = 1; follower <= form.followers; ++follower) {
            if (position + follower >= text.size() || (byteAt(text, position + follower) & 0xC0U) != 0x80U) {
                return 0;
            }
            code = code << 6U | (byteAt(text, position + follower) & 0x3FU);
        }
        return code >= form.least && isPrintable(code) ? 1 + form.followers : 0;
    }
    return 0;
}

}  // namespace

std::string escaped(const std::string& text) {
    std::string shown;
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t bytes = printableBytes(text, position);
        if (bytes == 0) {
            shown += "\\x" + hexText(text.substr(position++, 1));
            continue;
        }
        if (text[position] == '\\') {
            shown += '\\';
        }
        shown += text.substr(position, bytes);
        position += bytes;
    }
    return shown;
}

std::string quoted(const std::string& text) {
    return "'" + escaped(text) + "'";
}

}  // namespace kavro
