// The components that a package is made of, as files in a directory.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "package/components.h"
#include "package/internal/signing.h"
#include "package/release_list.h"
#include "package/version.h"

namespace kavro::package {

struct Component {
    std::string name;
    std::filesystem::path path;  // absolute
};

struct ComponentFault {
    std::string text;        // one sentence without a full stop that names the file
    std::string next;        // what to do about it
    bool forceable = false;  // a package can be made all the same
};

// The components in a directory, in the order of kComponentNames; the version list only if there is one. Every
// other one that is missing, is no regular file (links are followed), is empty or cannot be read is added to the faults
// instead. Throws Failure (refused) when there is no such directory.
std::vector<Component> findComponents(const std::filesystem::path& directory,
                                      std::vector<ComponentFault>& faults);

// What a component's file holds.
struct ComponentContent {
    std::uint64_t bytes = 0;
    DigestBytes sha256;
    std::optional<ComponentFault> fault;  // what it should be and is not; forceable
};

// Reads a component's file once, in fixed memory. version is that of the package. Throws Failure (refused) when it cannot be
// read.
ComponentContent readComponent(const Component& component, const Version& version);

// The release list of a package: what it says of the components but the list itself, in their order, with the digests that
// stand in contents.
ReleaseList makeReleaseList(const std::vector<Component>& components,
                            const std::vector<ComponentContent>& contents, const Version& version,
                            const std::optional<std::uint32_t>& epoch);

}  // namespace kavro::package
