// What each component must look like for the program that reads it on a device: kernel and device tree for the boot
// loader, the root file system for the kernel, the microcontroller's files for the flash driver. A device flashes
// whatever is signed; a wrong file would show only when it does not start.
#pragma once

#include <optional>

#include "package/internal/component_files.h"

namespace kavro::package {

// Looks into a component that is there. Nothing when it is in order, or of a component without a known format. version
// is that of the package, which the microcontroller's application must carry.
std::optional<ComponentFault> formatFault(const Component& component, const Version& version);

}  // namespace kavro::package
