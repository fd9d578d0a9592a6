// Making an upgrade package out of components, and signing them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/upgradectl/interrupts.h"
#include "tools/upgradectl/package_version.h"

namespace upgradectl {

struct PackRequest {
    std::filesystem::path componentDir;
    std::filesystem::path key;
    std::filesystem::path output;
    PackageVersion version;
    std::optional<std::string> stamp;  // none: the time
    std::string ident;
    std::string branch;
    std::string user;
    bool force = false;  // pack components that are not what they should be, wherever a package can hold them
};

struct PackSummary {
    std::uint32_t payloadBytes = 0;
    std::string md5;
    std::string keyDescription;
    std::vector<std::string> warnings;  // the faults that were packed by force
};

// Writes the package, a file of kPackageBytes bytes, and returns what stands in its trailer. The time of the
// archive's entries and of the default stamp is SOURCE_DATE_EPOCH; without it the entries carry the time 0
// and the stamp the present. Throws ToolError, with nothing left behind, when an input is refused, the output
// cannot be written or an interrupt comes. All faults of the components come in one error.
PackSummary pack(const PackRequest& request, const Interrupts& interrupts);

}  // namespace upgradectl
