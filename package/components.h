// The components of a package: which files its archive must hold.
#pragma once

#include <array>

namespace kavro::package {

inline constexpr const char* kMcuApplication = "mcu_flash_app.s19";  // the microcontroller's software
inline constexpr const char* kMcuFlashDriver = "mcu_flash_drv.s19";  // what programs it
inline constexpr const char* kVersionList = "version_list.acs";      // binds the others, see release_list.h

inline constexpr const char* kDigestSuffix =
    ".sha256";  // behind it: the file of its digest, for a signer elsewhere
inline constexpr const char* kSignatureSuffix = ".sign";  // behind a component's name: its signature's

// Every package holds exactly these and their signatures.
inline constexpr std::array<const char*, 7> kComponentNames = {
    "bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image", kMcuApplication, kMcuFlashDriver, kVersionList,
};

}  // namespace kavro::package
