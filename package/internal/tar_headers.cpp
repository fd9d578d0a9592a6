#include "package/internal/tar_headers.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <utility>

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
constexpr std::size_t kMostTextBytes = 65536;  // of a header that tells more about the next one

constexpr std::array<Number, 5> kNumbers = {{
    {"mode", 100, 8},
    {"owner", 108, 8},
    {"group", 116, 8},
    {"size", kSizeAt, kSizeBytes},
    {"time", 136, 12},
}};

constexpr char kLongName = 'L';
constexpr char kAttributes = 'x';

// Regular files ('0', NUL), symbolic links, devices, directories and fifos, which are refused by what they are; a name and
// attributes of the entry behind. Not hard links, and not 'g', attributes of all that follow: either could put other contents
// under a component's name. Nor anything of which not every reader makes the same file: sparse ('S') and contiguous ('7') ones.
constexpr char kKnownTypes[] = {'0', '\0', '2', '3', '4', '5', '6', kLongName, kAttributes};

bool isText(const std::string& value) {
    return value.find('\0') == std::string::npos;
}

bool isDigits(const std::string& value) {
    return !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
}

// Seconds, which may be before 1970 and have a fraction.
bool isTime(const std::string& value) {
    const std::string number = value.substr(value.rfind('-', 0) == 0 ? 1 : 0);
    const std::size_t point = number.find('.');
    return isDigits(number.substr(0, point)) &&
           (point == std::string::npos || isDigits(number.substr(point + 1)));
}

// The attributes that every reader knows, and that change no contents.
struct Attribute {
    const char* keyword;
    bool (*isValid)(const std::string& value);
};
constexpr const char* kPath = "path";
constexpr std::array<Attribute, 9> kHarmlessAttributes = {{
    {kPath, isText},
    {"comment", isText},
    {"uname", isText},
    {"gname", isText},
    {"uid", isDigits},
    {"gid", isDigits},
    {"mtime", isTime},
    {"atime", isTime},
    {"ctime", isTime},
}};

// One record: "LENGTH KEYWORD=VALUE\n", where the length is that of all of it.
struct Record {
    std::string keyword;
    std::string value;
};

// Takes the record that the text begins with off it; nothing when there is none.
std::optional<Record> takeRecord(std::string& text) {
    constexpr std::size_t kMostDigits = 6;
    const std::size_t blank = text.find(' ');
    const std::string digits = text.substr(0, std::min(blank, kMostDigits + 1));
    if (blank == std::string::npos || digits.size() > kMostDigits || !isDigits(digits)) {
        return std::nullopt;
    }
    const std::size_t length = std::stoul(digits);
    const std::size_t sign = text.find('=');
    if (length > text.size() || sign == std::string::npos || sign < blank || sign + 1 >= length ||
        text[length - 1] != '\n') {
        return std::nullopt;
    }
    Record record = {text.substr(blank + 1, sign - blank - 1), text.substr(sign + 1, length - sign - 2)};
    text.erase(0, length);
    return record;
}

bool isOctal(char character) {
    return character >= '0' && character <= '7';
}

}  // namespace

void TarHeaderCheck::take(const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0 && !ended && firstFault.empty()) {
        std::size_t taken = 0;
        if (textLeft > 0) {
            taken = takeText(bytes, size);
        } else if (contentsLeft > 0) {
            taken = static_cast<std::size_t>(std::min<std::uint64_t>(size, contentsLeft));
            contentsLeft -= taken;
        } else {
            taken = takeBlock(bytes, size);
        }
        bytes += taken;
        size -= taken;
    }
}

std::optional<TarHeader> TarHeaderCheck::next() {
    if (entries.empty()) {
        return std::nullopt;
    }
    TarHeader header = std::move(entries.front());
    entries.pop_front();
    return header;
}

std::size_t TarHeaderCheck::takeText(const char* bytes, std::size_t size) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(size, textLeft));
    text.append(bytes, taken);
    textLeft -= taken;
    if (textLeft == 0) {
        textType == kLongName ? checkLongName() : checkAttributes();
        text.clear();
    }
    return taken;
}

std::size_t TarHeaderCheck::takeBlock(const char* bytes, std::size_t size) {
    const std::size_t taken = std::min(size, block.size() - filled);
    std::memcpy(block.data() + filled, bytes, taken);
    filled += taken;
    if (filled == block.size()) {
        filled = 0;
        checkHeader();
    }
    return taken;
}

void TarHeaderCheck::checkHeader() {
    ended = std::all_of(block.begin(), block.end(), [](char byte) { return byte == 0; });
    if (ended) {
        return;
    }
    checkNumbers();
    checkType();
    if (!firstFault.empty()) {
        return;
    }
    const std::uint64_t bytes = statedBytes();
    contentsLeft = (bytes + block.size() - 1) / block.size() * block.size();
    const char type = block[kTypeAt];
    if (type == kLongName || type == kAttributes) {
        textType = type;
        textLeft = bytes;
        contentsLeft -= bytes;
        hasFront = true;
        return;
    }
    entries.push_back({frontName.value_or(ownName()), bytes});
    frontName.reset();
    hasFront = false;
}

void TarHeaderCheck::checkNumbers() {
    for (const Number& number : kNumbers) {
        const std::string fault = numberFault(number.offset, number.size);
        if (!fault.empty()) {
            firstFault = "the header of " + quoted(ownName()) + " has " + fault + " for its " + number.name;
            return;
        }
    }
}

void TarHeaderCheck::checkType() {
    if (!firstFault.empty()) {
        return;
    }
    const char type = block[kTypeAt];
    const bool tellsMore = type == kLongName || type == kAttributes;
    if (std::find(std::begin(kKnownTypes), std::end(kKnownTypes), type) == std::end(kKnownTypes)) {
        firstFault = "an entry has the type " + quoted(std::string(1, type)) +
                     ", which no entry of a package may have";
    } else if (tellsMore && hasFront) {
        // Which of two counts, and for what, is each reader's own business.
        firstFault = "more than one header stands before an entry to tell more about it";
    } else if (tellsMore && (statedBytes() == 0 || statedBytes() > kMostTextBytes)) {
        firstFault =
            "a header before an entry has " + std::to_string(statedBytes()) + " bytes to tell about it";
    }
}

void TarHeaderCheck::checkLongName() {
    if (text.back() == '\0') {
        text.pop_back();
    }
    if (!isText(text)) {
        firstFault = "an entry has " + kavro::quoted(text) + " for its name";
    }
    frontName = text;
}

void TarHeaderCheck::checkAttributes() {
    std::set<std::string> seen;
    while (!text.empty() && firstFault.empty()) {
        const std::optional<Record> record = takeRecord(text);
        if (!record) {
            firstFault = "the attributes of an entry cannot be read";
            return;
        }
        if (!seen.insert(record->keyword).second) {
            firstFault = "an entry has the attribute " + quoted(record->keyword) + " twice";
            return;
        }
        refuseAttribute(record->keyword, record->value);
        if (record->keyword == kPath) {
            frontName = record->value;
        }
    }
}

void TarHeaderCheck::refuseAttribute(const std::string& keyword, const std::string& value) {
    const auto known =
        std::find_if(kHarmlessAttributes.begin(), kHarmlessAttributes.end(),
                     [&keyword](const Attribute& attribute) { return keyword == attribute.keyword; });
    if (known == kHarmlessAttributes.end()) {
        firstFault =
            "an entry has the attribute " + quoted(keyword) + ", which not every reader takes for the same";
    } else if (!known->isValid(value)) {
        firstFault = "an entry has " + quoted(value) + " for its " + quoted(keyword);
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
    return quoted(std::string(begin, end));
}

// The size is known to be a number.
std::uint64_t TarHeaderCheck::statedBytes() const {
    const char* const end = block.data() + kSizeAt + kSizeBytes;
    const char* digit = std::find_if(block.data() + kSizeAt, end, [](char byte) { return byte != ' '; });
    std::uint64_t bytes = 0;
    for (; digit != end && isOctal(*digit); ++digit) {
        bytes = bytes << 3U | static_cast<std::uint64_t>(*digit - '0');
    }
    return bytes;
}

// What may stand in front of it elsewhere in the header leads into a directory, and so does not matter.
std::string TarHeaderCheck::ownName() const {
    return {block.data(), strnlen(block.data(), kNameBytes)};
}

}  // namespace kavro::package
