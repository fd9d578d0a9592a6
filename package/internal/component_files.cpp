#include "package/internal/component_files.h"

#include <unistd.h>

#include <optional>

#include "base/failure.h"
#include "base/hex_digit.h"
#include "package/internal/signing.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

bool isAbsent(const fs::path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type() == fs::file_type::not_found;
}

// What is wrong with a file whatever its contents, and what to do about it.
std::optional<ComponentFault> fileFault(const fs::path& path) {
    const auto fault = [&path](const char* text, const char* next) {
        return ComponentFault{"the component '" + path.string() + "' " + text, next};
    };
    if (isAbsent(path)) {
        return fault("is missing", "put it into the component directory");
    }
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    if (status.type() == fs::file_type::not_found) {
        return fault("is a link to nothing", "repair the link or put the file itself there");
    }
    if (!fs::is_regular_file(status)) {
        return fault("is no regular file", "put the file itself there");
    }
    if (access(path.c_str(), R_OK) != 0) {
        return fault("cannot be read", "check its permissions");
    }
    if (fs::file_size(path) == 0) {
        return fault("is empty", "put the whole file there");
    }
    return std::nullopt;
}

}  // namespace

std::vector<Component> findComponents(const fs::path& directory, std::vector<ComponentFault>& faults) {
    const fs::path root = fs::absolute(directory);
    if (!fs::is_directory(root)) {
        throw Failure(ErrorCode::kRefused,
                      "the component directory '" + directory.string() + "' is no directory",
                      "give the directory that holds the components");
    }
    std::vector<Component> components;
    for (const char* name : kComponentNames) {
        const fs::path path = root / name;
        if (name == std::string(kVersionList) && isAbsent(path)) {
            continue;
        }
        if (const std::optional<ComponentFault> fault = fileFault(path)) {
            faults.push_back(*fault);
        } else {
            components.push_back({name, path});
        }
    }
    return components;
}

std::string makeVersionList(const std::vector<Component>& components, const Version& version) {
    std::string text = "version " + formatVersion(version) + "\n";
    for (const Component& component : components) {
        text += "sha256 " + hexText(fileDigest(component.path, Digest::Kind::kSha256)) + " " +
                component.name + "\n";
    }
    return text;
}

}  // namespace kavro::package
