// The version of a package file, quickly: of its trailer alone.
#pragma once

#include <filesystem>
#include <string>

namespace upgradectl {

// "V01.105.008.003", or empty when the file is no package or its trailer is damaged.
std::string readPackageVersion(const std::filesystem::path& package);

}  // namespace upgradectl
