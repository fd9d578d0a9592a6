// A package as a file.
#pragma once

#include <filesystem>
#include <string>

#include "base/raw_file.h"

namespace kavro::package {

// Throws Failure (refused) for a file that is no package: another size, no regular file, unreadable.
RawFile openPackage(const std::filesystem::path& path);

// The bytes of the trailer of an open package. Throws Failure (refused) when they cannot be read.
std::string readTrailerBlock(const RawFile& file, const std::filesystem::path& path);

}  // namespace kavro::package
