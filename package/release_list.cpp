#include "package/release_list.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "base/escaped_text.h"
#include "base/failure.h"
#include "package/components.h"
#include "package/trailer.h"

namespace kavro::package {

namespace {

constexpr const char* kFormatWord = "release_list";
constexpr const char* kEpochWord = "epoch";
constexpr const char* kComponentWord = "component";
constexpr const char* kNoteWord = "note";
constexpr std::size_t kDigestDigits = 64;
constexpr std::size_t kMostShownBytes = 80;  // of a wrong line

struct VersionLine {
    const char* word;
    int Version::*number;
};
constexpr std::array<VersionLine, 4> kVersionLines = {{
    {"hardware", &Version::hw},
    {"main_processor", &Version::mpu},
    {"microcontroller", &Version::mcu},
    {"boot_loader", &Version::bld},
}};

// Takes the lines of a text one after the other, word by word.
class ListReader {
  public:
    explicit ListReader(const std::string& text) : rest(text) { nextLine(); }

    [[nodiscard]] bool atEnd() const { return ended; }
    [[nodiscard]] bool begins(const std::string& word) const {
        return !ended && line.rfind(word + " ", 0) == 0;
    }

    // Each takes a part of the line, or refuses the line.
    void takeWord(const std::string& word) {
        if (!begins(word)) {
            refuse(word);
        }
        expected = word;
        line.erase(0, word.size() + 1);
    }
    std::uint64_t takeNumber(std::uint64_t most) {
        const std::string digits = takePart();
        const bool valid = !digits.empty() && digits.size() <= kMostDigits &&
                           digits.find_first_not_of("0123456789") == std::string::npos &&
                           (digits.size() == 1 || digits.front() != '0');
        const std::uint64_t number = valid ? std::stoull(digits) : 0;
        if (!valid || number > most) {
            refuse(expected);
        }
        return number;
    }
    std::string takeDigest() {
        std::string digits = takePart();
        if (digits.size() != kDigestDigits ||
            digits.find_first_not_of("0123456789abcdef") != std::string::npos) {
            refuse(expected);
        }
        return digits;
    }
    std::string takeRest() { return std::exchange(line, {}); }

    void endLine() {
        if (!line.empty() || lineGoesOn) {
            refuse(expected);
        }
        nextLine();
    }

    [[noreturn]] void refuse(const std::string& wanted) const {
        const std::string found = ended ? "the release list ends"
                                        : "line " + std::to_string(lineNumber) + " of the release list is " +
                                              quoted(whole.substr(0, kMostShownBytes)) + ",";
        throw Failure(ErrorCode::kRefused, found + " where '" + wanted + "' belongs",
                      "leave the list out: 'upgradectl pack' writes it");
    }

  private:
    static constexpr std::size_t kMostDigits = 18;

    void nextLine() {
        ++lineNumber;
        ended = rest.empty();
        const std::size_t end = rest.find('\n');
        whole = rest.substr(0, end);
        line = whole;
        rest.erase(0, end == std::string::npos ? end : end + 1);
        if (!ended && end == std::string::npos) {
            refuse("a line end");
        }
    }
    // Up to the next blank, which is taken, too, or the end of the line.
    std::string takePart() {
        const std::size_t blank = line.find(' ');
        std::string part = line.substr(0, blank);
        lineGoesOn = blank != std::string::npos;
        line.erase(0, lineGoesOn ? blank + 1 : blank);
        return part;
    }

    std::string rest;
    std::string whole;  // the line at hand,
    std::string line;   // and what is left of it
    std::string expected;
    std::size_t lineNumber = 0;
    bool ended = false;
    bool lineGoesOn = false;  // there was a blank behind the last part
};

void readVersions(ListReader& reader, Version& version) {
    for (const VersionLine& versionLine : kVersionLines) {
        reader.takeWord(versionLine.word);
        version.*versionLine.number = static_cast<int>(reader.takeNumber(kMaxVersion));
        reader.endLine();
    }
}

void readComponents(ListReader& reader, std::vector<ListedComponent>& components) {
    for (const std::string name : kComponentNames) {
        if (name == kVersionList) {
            continue;
        }
        ListedComponent component;
        component.name = name;
        reader.takeWord(std::string(kComponentWord) + " " + name);
        component.bytes = reader.takeNumber(kMaxPayloadBytes);
        component.sha256 = reader.takeDigest();
        reader.endLine();
        components.push_back(std::move(component));
    }
}

ReleaseList readList(const std::string& text) {
    ReleaseList list;
    ListReader reader(text);
    reader.takeWord(kFormatWord);
    reader.takeNumber(kReleaseListFormat);
    reader.endLine();
    readVersions(reader, list.version);
    if (reader.begins(kEpochWord)) {
        reader.takeWord(kEpochWord);
        list.epoch = static_cast<std::uint32_t>(reader.takeNumber(std::numeric_limits<std::uint32_t>::max()));
        reader.endLine();
    }
    readComponents(reader, list.components);
    while (!reader.atEnd()) {
        reader.takeWord(kNoteWord);
        list.notes.push_back(reader.takeRest());
        if (!isNote(list.notes.back()) || list.notes.size() > kMaxNotes) {
            reader.refuse(list.notes.size() > kMaxNotes ? "the end" : kNoteWord);
        }
        reader.endLine();
    }
    return list;
}

}  // namespace

ListKind listKindOf(const std::string& text) {
    const std::string line = text.substr(0, text.find('\n'));
    const std::string front = std::string(kFormatWord) + " ";
    if (line.rfind(front, 0) != 0) {
        return ListKind::kForeign;
    }
    return line == front + std::to_string(kReleaseListFormat) ? ListKind::kReleaseList
                                                              : ListKind::kOtherFormat;
}

Result<ReleaseList> parseReleaseList(const std::string& text) {
    return resultOf([&text] {
        if (text.size() > kMaxReleaseListBytes) {
            throw Failure(ErrorCode::kRefused,
                          "the release list has more than " + std::to_string(kMaxReleaseListBytes) + " bytes",
                          "leave notes out");
        }
        if (listKindOf(text) != ListKind::kReleaseList) {
            throw Failure(ErrorCode::kRefused,
                          "the text is no release list of the format " + std::to_string(kReleaseListFormat),
                          "leave the list out: 'upgradectl pack' writes it");
        }
        return readList(text);
    });
}

std::string formatReleaseList(const ReleaseList& list) {
    const auto line = [](const std::string& word, const std::string& rest) {
        return word + " " + rest + "\n";
    };
    std::string text = line(kFormatWord, std::to_string(kReleaseListFormat));
    for (const VersionLine& versionLine : kVersionLines) {
        text += line(versionLine.word, std::to_string(list.version.*versionLine.number));
    }
    if (list.epoch) {
        text += line(kEpochWord, std::to_string(*list.epoch));
    }
    for (const ListedComponent& component : list.components) {
        text += line(kComponentWord,
                     component.name + " " + std::to_string(component.bytes) + " " + component.sha256);
    }
    for (const std::string& note : list.notes) {
        text += line(kNoteWord, note);
    }
    return text;
}

bool isNote(const std::string& text) {
    constexpr unsigned char kFirstPrintable = ' ';
    constexpr unsigned char kDelete = 0x7F;
    return !text.empty() && text.size() <= kMaxNoteBytes &&
           std::all_of(text.begin(), text.end(),
                       [](unsigned char byte) { return byte >= kFirstPrintable && byte != kDelete; });
}

}  // namespace kavro::package
