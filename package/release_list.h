// The release list: the text of the component `version_list.acs`, which binds the parts of a release together. Each signature
// covers the bytes of one component, not its name, its release or its version; the list names all of that, and is signed itself.
//
// Lines in this order, each with one LF behind it; numbers are decimal without leading zeros:
//
//     release_list 1                     the format, kReleaseListFormat
//     hardware 1                         the four versions, 0 to 999 each
//     main_processor 105
//     microcontroller 8
//     boot_loader 3
//     epoch 7                            optional: 0 to 4294967295
//     component NAME BYTES SHA256        for each of kComponentNames but the list itself, in their order
//     note TEXT                          any number up to kMaxNotes: text for people
//
// There is one text for each list: no other order, no other spelling of a number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/version.h"

namespace kavro::package {

inline constexpr int kReleaseListFormat = 1;                // the one that is written, and known
inline constexpr std::size_t kMaxReleaseListBytes = 16384;  // of the whole text
inline constexpr std::size_t kMaxNotes = 64;                // lines
inline constexpr std::size_t kMaxNoteBytes = 200;           // each, at least one

// What a list says of one component.
struct ListedComponent {
    std::string name;         // of kComponentNames
    std::uint64_t bytes = 0;  // its length
    std::string sha256;       // 64 lower-case hexadecimal digits
};

// What a list says.
struct ReleaseList {
    Version version;                     // of the release
    std::optional<std::uint32_t> epoch;  // security epoch: higher where older releases must not come back
    std::vector<ListedComponent> components;  // kComponentNames without the list itself, in that order
    std::vector<std::string> notes;           // without control characters
};

// What a text is, by its first line.
enum class ListKind {
    kForeign,      // no release list: what another maker's build writes for people
    kOtherFormat,  // a release list in a format that is not known here
    kReleaseList,  // one that parseReleaseList() reads
};

// Looks at the first line alone.
KAVRO_EXPORT ListKind listKindOf(const std::string& text);

// Reads a list of the kind kReleaseList. The error (refused) says which line is wrong, and quotes it escaped.
KAVRO_EXPORT Result<ReleaseList> parseReleaseList(const std::string& text);

// The text of a list, which must be one that parseReleaseList() could have read.
KAVRO_EXPORT std::string formatReleaseList(const ReleaseList& list);

// Whether a text can be a note: 1 to kMaxNoteBytes bytes without control characters.
KAVRO_EXPORT bool isNote(const std::string& text);

}  // namespace kavro::package
