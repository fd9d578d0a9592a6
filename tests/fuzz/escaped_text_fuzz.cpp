// Texts from a package, as people see them, and log lines, as others read them. An input is a text.

#include "base/escaped_text.h"

#include "base/run_line.h"

#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;

int digitOf(char character) {
    return character >= '0' && character <= '9' ? character - '0' : character - 'a' + 10;
}

// What the escaped text stands for.
std::string plain(const std::string& text) {
    std::string result;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '\\') {
            result += text[index];
        } else if (text.at(index + 1) == '\\') {
            result += text[++index];
        } else {
            require(text.at(index + 1) == 'x' && index + 3 < text.size(), "a backslash begins \\\\ or \\xNN");
            result += static_cast<char>(digitOf(text[index + 2]) * 16 + digitOf(text[index + 3]));
            index += 3;
        }
    }
    return result;
}

void requireHarmless(const std::string& text) {
    require(fuzz::isUtf8(text), "people see characters");
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        require(byte >= 0x20 && byte != 0x7F, "no character controls the terminal");
    }
    // What begins the control characters behind ASCII, and those that turn the direction of writing.
    for (const char* hidden :
         {"\u202E", "\u202A", "\u2066", "\u2069", "\u200B", "\u200F", "\uFEFF", "\u0085", "\u009B"}) {
        require(text.find(hidden) == std::string::npos, "no character hides another");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string shown = kavro::escaped(text);
    requireHarmless(shown);
    require(plain(shown) == text, "an escaped text stands for the text");

    if (const auto report = kavro::runLineIn(text)) {
        const std::string change =
            "&&&&& upgrade [stage " + report->stage + "], [result " + report->state + "] &&&&&";
        require(text.find(change) != std::string::npos, "a report is what stands in the line");
    }
    return 0;
}
