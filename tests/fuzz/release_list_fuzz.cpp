// The release list of a package. An input is its text.

#include <algorithm>

#include "package/components.h"
#include "package/release_list.h"
#include "package/trailer.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::package::kComponentNames;
using kavro::package::kVersionList;
using kavro::package::ListedComponent;
using kavro::package::ListKind;
using kavro::package::ReleaseList;

bool isVersion(int number) {
    return number >= 0 && number <= kavro::package::kMaxVersion;
}

void requireComponents(const std::vector<ListedComponent>& components) {
    auto listed = components.begin();
    for (const std::string name : kComponentNames) {
        if (name == kVersionList) {
            continue;
        }
        require(listed != components.end() && listed->name == name,
                "every other component is named, in its place");
        require(listed->bytes <= kavro::package::kMaxPayloadBytes, "a component fits into a package");
        require(listed->sha256.size() == 64 &&
                    listed->sha256.find_first_not_of("0123456789abcdef") == std::string::npos,
                "a digest has its digits");
        ++listed;
    }
    require(listed == components.end(), "no other component is named");
}

void requireSane(const ReleaseList& list) {
    require(isVersion(list.version.hw) && isVersion(list.version.mpu) && isVersion(list.version.mcu) &&
                isVersion(list.version.bld),
            "a version is in its range");
    requireComponents(list.components);
    require(list.notes.size() <= kavro::package::kMaxNotes, "there are no more notes than may be");
    require(std::all_of(list.notes.begin(), list.notes.end(), kavro::package::isNote), "a note is one");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto list = kavro::package::parseReleaseList(text);
    if (!list.ok()) {
        require(!list.error().text.empty() && !list.error().next.empty(), "a refusal has its reason");
        require(list.error().text.find_first_of("\n\x1b") == std::string::npos,
                "a reason is one printable line");
        return 0;
    }
    require(kavro::package::listKindOf(text) == ListKind::kReleaseList,
            "what is read is known by its first line");
    require(size <= kavro::package::kMaxReleaseListBytes, "what is read is bounded");
    requireSane(list.value());
    require(kavro::package::formatReleaseList(list.value()) == text, "there is one text for each list");
    return 0;
}
