// The components of a package: which files they are, where they lie, and what each must be like.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/upgradectl/package_version.h"

namespace upgradectl {

inline constexpr const char* kMcuApplication = "mcu_flash_app.s19";
inline constexpr const char* kMcuFlashDriver = "mcu_flash_drv.s19";
inline constexpr const char* kVersionList = "version_list.acs";

// Every package holds exactly these, each with a signature file NAME.sign.
inline constexpr std::array<const char*, 7> kComponentNames = {
    "bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image", kMcuApplication, kMcuFlashDriver, kVersionList,
};

struct Component {
    std::string name;
    std::filesystem::path path;  // absolute
};

// The components in a directory, in the order of kComponentNames; the version list only if there is one.
// Throws ToolError (refused) when another one is missing, is no regular file (links are followed) or cannot
// be read.
std::vector<Component> findComponents(const std::filesystem::path& directory);

// Throws ToolError (refused) unless the microcontroller's files are S-records and its application carries the
// version of the package.
void checkMcuComponents(const std::vector<Component>& components, const PackageVersion& version);

// The text of a version list: the versions of the package, then name and SHA-256 of each component.
std::string makeVersionList(const std::vector<Component>& components, const PackageVersion& version);

}  // namespace upgradectl
