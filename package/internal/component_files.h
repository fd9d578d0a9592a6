// The components that a package is made of, as files in a directory.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "package/components.h"
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

// The text of a version list: the versions of the package, then name and SHA-256 of each component.
std::string makeVersionList(const std::vector<Component>& components, const Version& version);

}  // namespace kavro::package
