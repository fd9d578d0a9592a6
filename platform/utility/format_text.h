// printf into memory of the length that the text needs.
#pragma once

#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace kavro {

struct FormattedText {
    struct Free {
        void operator()(char* memory) const { std::free(memory); }
    };
    std::unique_ptr<char, Free> text;  // null on failure
    std::size_t length = 0;

    std::string_view view() const { return {text.get(), length}; }
};

__attribute__((format(printf, 1, 0))) FormattedText formatText(const char* format, va_list arguments);

}  // namespace kavro
