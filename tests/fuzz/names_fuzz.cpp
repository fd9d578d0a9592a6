// Name tables and small texts. An input is lines: a separator, a text, and the names of a table.

#include <deque>

#include "common/utility.h"
#include "tests/fuzz/fuzz.h"

namespace {

using COMMON_YR::MapKeyString;
using fuzz::require;

// A table as its users have them; its texts belong to `names`. Keys repeat, and names may.
std::vector<MapKeyString> tableOf(const std::deque<std::string>& names) {
    std::vector<MapKeyString> table;
    for (const std::string& name : names) {
        table.push_back({static_cast<int>(name.size()) - 3, name.c_str()});
    }
    table.push_back({COMMON_YR::kMapKeyEnd, ""});
    return table;
}

void requireLookups(const std::vector<MapKeyString>& table) {
    for (std::size_t index = 0; index + 1 < table.size(); ++index) {
        const std::string text = COMMON_YR::getKeyString(table[index].key, table.data());
        int key = 4711;
        require(COMMON_YR::getStringKey(table[index].text, key, table.data()), "every name is found");
        std::size_t first = 0;
        while (std::string(table[first].text) != table[index].text) {
            ++first;
        }
        require(key == table[first].key, "the first row of a name counts");
        for (first = 0; table[first].key != table[index].key; ++first) {
        }
        require(text == table[first].text, "the first row of a key counts");
    }
    require(COMMON_YR::getKeyString(COMMON_YR::kMapKeyEnd, table.data()) == std::string("unknown"),
            "the last row is none");
}

void requireMissing(const std::vector<MapKeyString>& table, const std::string& text) {
    int key = 4711;
    bool there = false;
    for (std::size_t index = 0; index + 1 < table.size(); ++index) {
        there = there || text.c_str() == std::string(table[index].text);
    }
    require(COMMON_YR::getStringKey(text.c_str(), key, table.data()) == there,
            "a name is found when it is there");
    require(there || key == 4711, "a key is set only then");
}

// Joining the pieces again, as far as the separators tell.
void requirePieces(const std::string& text, const std::string& separator) {
    std::list<std::string> pieces = {"before"};
    COMMON_YR::split(text.c_str(), separator.c_str(), pieces);
    require(pieces.front() == "before", "pieces are appended");
    pieces.pop_front();
    // cppcheck-suppress stlcstrAssignment  // up to a NUL
    const std::string whole = text.c_str();
    // cppcheck-suppress stlcstrAssignment
    const std::string mark = separator.c_str();
    std::size_t at = 0;
    for (const std::string& piece : pieces) {
        require(!piece.empty() && (mark.empty() || piece.find(mark) == std::string::npos),
                "a piece has no separator");
        while (!mark.empty() && whole.compare(at, mark.size(), mark) == 0) {
            at += mark.size();
        }
        require(whole.compare(at, piece.size(), piece) == 0, "pieces come in their order");
        at += piece.size();
        require(at == whole.size() || whole.compare(at, mark.size(), mark) == 0,
                "a piece ends at a separator");
    }
    while (!mark.empty() && at < whole.size()) {
        require(whole.compare(at, mark.size(), mark) == 0, "nothing but separators is left out");
        at += mark.size();
    }
    require(at == whole.size(), "the whole text is split");
}

int digitOf(char character) {
    const std::string digits = "0123456789abcdef";
    const char lower = character >= 'A' && character <= 'F' ? static_cast<char>(character + 32) : character;
    const std::size_t position = digits.find(lower);
    return position == std::string::npos ? -1 : static_cast<int>(position);
}

void requireHex(const std::string& text) {
    bool isHex = text.size() % 2 == 0;
    for (const char character : text) {
        isHex = isHex && digitOf(character) >= 0;
    }
    const std::vector<unsigned char> before = {1, 2, 3};
    std::vector<unsigned char> bytes = before;
    require(COMMON_YR::_xatoi(text, bytes) == isHex,
            "hexadecimal digits in pairs are converted, nothing else");
    if (!isHex) {
        require(bytes == before, "a failure leaves the bytes alone");
        return;
    }
    require(bytes.size() == text.size() / 2, "two digits make a byte");
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        require(bytes[index] == digitOf(text[2 * index]) * 16 + digitOf(text[2 * index + 1]),
                "with their value");
    }
}

void requireFileName(const std::string& path) {
    const char* const text = path.c_str();
    const std::string name = COMMON_YR::getFileName(text);
    const std::string whole = text;
    require(name.find('/') == std::string::npos, "a name has no slash");
    require(whole.size() == name.size() || whole[whole.size() - name.size() - 1] == '/',
            "a name stands behind the last slash");
    require(whole.compare(whole.size() - name.size(), name.size(), name) == 0,
            "a name is the end of its path");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string separator = input.line();
    const std::string text = input.line();
    std::deque<std::string> names;
    while (!input.empty() && names.size() < 32) {
        names.push_back(input.line());
    }
    const std::vector<MapKeyString> table = tableOf(names);
    requireLookups(table);
    requireMissing(table, text);
    requirePieces(text, separator);
    requireHex(text);
    requireFileName(text);
    return 0;
}
