// split, getFileName, _xatoi.

#include <cstring>
#include <string_view>

#include "base/hex_digit.h"
#include "common/utility.h"

namespace COMMON_YR {

void split(const char* text, const char* separator, std::list<std::string>& pieces) {
    std::string_view rest = text == nullptr ? "" : text;
    const std::string_view mark = separator == nullptr ? "" : separator;
    while (!rest.empty()) {
        const std::size_t end = mark.empty() ? std::string_view::npos : rest.find(mark);
        if (end != 0) {
            pieces.emplace_back(rest.substr(0, end));
        }
        if (end == std::string_view::npos) {
            return;
        }
        rest.remove_prefix(end + mark.size());
    }
}

const char* getFileName(const char* path) {
    if (path == nullptr) {
        return "";
    }
    const char* const slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool _xatoi(std::string hexText, std::vector<unsigned char>& bytes) {
    if (hexText.size() % 2 != 0) {
        return false;
    }
    std::vector<unsigned char> converted;
    converted.reserve(hexText.size() / 2);
    for (std::size_t i = 0; i < hexText.size(); i += 2) {
        const int high = kavro::hexDigit(hexText[i]);
        const int low = kavro::hexDigit(hexText[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        converted.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    bytes = std::move(converted);
    return true;
}

}  // namespace COMMON_YR
