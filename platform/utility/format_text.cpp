#include "platform/utility/format_text.h"

#include <cstdio>

namespace kavro {

FormattedText formatText(const char* format, va_list arguments) {
    FormattedText result;
    char* text = nullptr;
    const int length = format == nullptr ? -1 : vasprintf(&text, format, arguments);
    if (length >= 0) {
        result.text.reset(text);
        result.length = static_cast<std::size_t>(length);
    }
    return result;
}

}  // namespace kavro
