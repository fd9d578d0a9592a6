#include "package/internal/packed_list.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "base/errno_text.h"
#include "base/escaped_text.h"
#include "base/failure.h"
#include "base/file_io.h"

namespace kavro::package {

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// "" when both are the same, else where they differ.
std::string difference(const std::string& given, const std::string& made) {
    const std::vector<std::string> givenLines = linesOf(given);
    const std::vector<std::string> madeLines = linesOf(made);
    for (std::size_t index = 0; index < givenLines.size() && index < madeLines.size(); ++index) {
        if (givenLines[index] != madeLines[index]) {
            return quoted(givenLines[index]) + " is in line " + std::to_string(index + 1) +
                   ", where the components call for " + quoted(madeLines[index]);
        }
    }
    return given == made ? "" : "it is cut short";
}

// Of a text in the known format. It may bring an epoch when none is wanted, and notes.
std::string releaseListFault(const std::string& text, ReleaseList made) {
    const Result<ReleaseList> given = parseReleaseList(text);
    if (!given.ok()) {
        return given.error().text;
    }
    made.epoch = made.epoch ? made.epoch : given.value().epoch;
    made.notes = given.value().notes;
    return difference(text, formatReleaseList(made));
}

// Takes the lines over as notes, but for those that the list has already. What cannot be a note is a fault.
std::string takeNotes(const std::string& text, ReleaseList& made) {
    const std::vector<std::string> known = linesOf(formatReleaseList(made));
    for (std::string line : linesOf(text)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty() || std::find(known.begin(), known.end(), line) != known.end()) {
            continue;
        }
        if (!isNote(line)) {
            return "the line " + quoted(line.substr(0, kMaxNoteBytes)) +
                   " cannot be a note: it has control characters, or more than " +
                   std::to_string(kMaxNoteBytes) + " bytes";
        }
        made.notes.push_back(line);
    }
    return made.notes.size() <= kMaxNotes ? "" : "it has more than " + std::to_string(kMaxNotes) + " lines";
}

std::string readList(const Component& given) {
    std::string text;
    if (!readBeginning(given.path.string(), kMaxReleaseListBytes + 1, text)) {
        throw Failure(ErrorCode::kRefused, "'" + given.path.string() + "' cannot be read: " + reasonOf(errno),
                      "check that it exists and is readable");
    }
    return text;
}

std::string sizeFault(const std::string& text) {
    return text.size() <= kMaxReleaseListBytes
               ? ""
               : "it has more than " + std::to_string(kMaxReleaseListBytes) + " bytes";
}

}  // namespace

PackedList packedList(const ReleaseList& made, const std::optional<Component>& given) {
    if (!given) {
        return {formatReleaseList(made), std::nullopt};
    }
    const std::string text = readList(*given);
    ReleaseList list = made;
    std::string result;
    std::string fault = sizeFault(text);
    if (fault.empty() && listKindOf(text) != ListKind::kForeign) {
        fault = releaseListFault(text, made);
        result = text;
    } else if (fault.empty()) {
        fault = takeNotes(text, list);
        result = formatReleaseList(list);
        fault = fault.empty() ? sizeFault(result) : fault;
    }
    if (fault.empty()) {
        return {result, std::nullopt};
    }
    return {{},
            ComponentFault{
                "the version list '" + given->path.string() + "' is not that of the package: " + fault,
                "remove it: pack writes one; --force packs it as it is, for devices without a trusted key",
                true}};
}

}  // namespace kavro::package
