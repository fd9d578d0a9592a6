// Making an upgrade package out of components, and signing them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/version.h"

namespace kavro::package {

// What a package is to be made of.
struct PackRequest {
    std::filesystem::path
        componentDir;              // holds the files of kComponentNames; the version list may be missing
    std::filesystem::path key;     // private, PEM without a password: RSA or EC
    std::filesystem::path output;  // the package; a file of that name is replaced when the new one is whole
    Version version;               // of its contents
    std::optional<std::string> stamp;  // none: the time
    std::string ident;                 // may be empty
    std::string branch;                // may be empty
    std::string user;                  // only with a branch text
    std::optional<std::uint32_t> epoch =
        std::nullopt;    // security epoch; none: that of a release list in componentDir
    bool force = false;  // pack components that are not what they should be, wherever a package can hold them
};

// What was made.
struct PackSummary {
    std::uint32_t payloadBytes = 0;     // of the archive
    std::string md5;                    // of the archive: 32 hexadecimal digits, lower case
    std::string keyDescription;         // "RSA, 2048 bits"
    std::vector<std::string> warnings;  // the faults that were packed by force
};

// Writes the package, a file of kPackageBytes bytes, and returns what stands in its trailer. Its version list is a release list
// (package/release_list.h): one that lies among the components must be that of the package, and the lines of any other text
// become notes. The time of the archive's
// entries and of the default stamp is SOURCE_DATE_EPOCH; without it the entries carry the time 0 and the stamp the present.
// Needs /bin/sh and GNU tar. Blocks while it works; keepGoing is asked between its steps, and false gives it up. A cancel of
// the thread takes effect afterwards. May be called from several threads at once, for different outputs.
//
// After an error nothing is left behind, and an older output is as it was: refused for an input, with all faults of the
// components at once; usage for what contradicts itself; other for an output that cannot be written; given_up.
KAVRO_EXPORT Result<PackSummary> pack(const PackRequest& request,
                                      const std::function<bool()>& keepGoing = {});

}  // namespace kavro::package
