// The release list of a package that is made: out of what its components are, and what the build has said about them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "package/internal/component_files.h"
#include "package/release_list.h"

namespace kavro::package {

struct PackedList {
    std::string text;                     // empty when a file is to be packed as it is
    std::optional<ComponentFault> fault;  // why the build's list cannot be taken; forceable
};

// made is the list of the components, with the wanted epoch if there is one. given is the build's own list, if there is one: a
// release list must agree with what is made, and is taken as it is; the lines of any other text become notes.
PackedList packedList(const ReleaseList& made, const std::optional<Component>& given);

}  // namespace kavro::package
