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

struct ComponentFault {
    std::string text;        // one sentence without a full stop that names the file
    std::string next;        // what to do about it
    bool forceable = false;  // a package can be made all the same
};

// The components in a directory, in the order of kComponentNames; the version list only if there is one. Every
// other one that is missing, is no regular file (links are followed), is empty or cannot be read is added to the faults
// instead. Throws ToolError (refused) when there is no such directory.
std::vector<Component> findComponents(const std::filesystem::path& directory,
                                      std::vector<ComponentFault>& faults);

// The text of a version list: the versions of the package, then name and SHA-256 of each component.
std::string makeVersionList(const std::vector<Component>& components, const PackageVersion& version);

}  // namespace upgradectl
