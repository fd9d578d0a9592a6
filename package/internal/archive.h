// Making a package's payload: a tar archive that depends on nothing but its files' names and contents.
#pragma once

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace kavro::package {

// Writes the named regular files of a directory (links are followed), in the given order, as a plain tar
// archive with the owner 0, the mode 0644 and the given modification time. output is overwritten. Both paths are absolute.
// Throws Failure.
void writeArchive(const std::filesystem::path& output, const std::filesystem::path& directory,
                  const std::vector<std::string>& names, std::time_t mtime);

}  // namespace kavro::package
