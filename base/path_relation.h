// How paths relate, links resolved.
#pragma once

#include <filesystem>

namespace kavro {

// The absolute path without links, as far as it exists.
inline std::filesystem::path resolved(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path);
    const std::filesystem::path result = std::filesystem::weakly_canonical(absolute, error);
    return error ? absolute : result;
}

// Whether a file, which need not exist, lies somewhere below the directory.
inline bool isBelow(const std::filesystem::path& path, const std::filesystem::path& directory) {
    return resolved(path).string().rfind(directory.string() + "/", 0) == 0;
}

}  // namespace kavro
