// Checking a package off the device: everything that a device checks before it flashes, and whose key it is.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/upgradectl/package_trailer.h"

namespace upgradectl {

struct ComponentCheck {
    std::string name;
    std::uint64_t bytes = 0;
    std::string sha256;  // lower-case hexadecimal digits; empty when the component is missing
    std::string fault;   // what a device would refuse it for; empty when it is in order
};

struct PackageCheck {
    PackageTrailer trailer;
    std::vector<ComponentCheck> components;  // the seven, in the order of kComponentNames
    std::vector<std::string> faults;         // of the package as a whole; empty when it is in order

    bool inOrder() const;
};

// Reads a package once, in fixed memory, without writing anything. With a trusted key (PEM, public) a package that
// carries another one has that as a fault. Throws ToolError (refused) when the file is no package, so that there
// is nothing to check: another size, no regular file, unreadable, a trailer that makes no sense.
PackageCheck checkPackage(const std::filesystem::path& package,
                          const std::optional<std::filesystem::path>& trustedKey = std::nullopt);

}  // namespace upgradectl
