// What a package is made of: components that are in order, and keys of the openssl tool.
#pragma once

#include <filesystem>

namespace testsupport {

// Six valid components, without the version list; the microcontroller's application carries version 8.
void makeComponents(const std::filesystem::path& directory);

// Private keys.
void makeEcKey(const std::filesystem::path& path);
void makeRsaKey(const std::filesystem::path& path, int bits = 2048);

}  // namespace testsupport
