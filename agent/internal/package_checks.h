// Whether the package itself is one that may be installed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "agent/preflight.h"

namespace kavro::agent {

struct PackageReading {
    std::optional<package::Check> check;  // when it could be read
    std::optional<Obstacle> obstacle;     // package
    std::uint64_t entryBytes = 0;         // that its archive takes when it is unpacked
};

// work_file
std::optional<Obstacle> workFileObstacle(const std::filesystem::path& package);

// Reads the package. Throws Failure (usage) when the trusted key cannot be read.
PackageReading readPackage(const std::filesystem::path& package,
                           const std::optional<std::filesystem::path>& trustedKey);

}  // namespace kavro::agent
