// Text from a package as people may see it: whoever made the package may have put into it what moves a terminal's
// cursor or hides other text.
#pragma once

#include <string>

namespace kavro {

// Printable ASCII and well-formed UTF-8 stay as they are, but for the backslash, which is doubled. Every byte of
// anything else - control characters, characters that turn the direction of writing or have no width, bytes that are
// no UTF-8 - becomes \xNN.
std::string escaped(const std::string& text);

// The same between single quotes.
std::string quoted(const std::string& text);

}  // namespace kavro
