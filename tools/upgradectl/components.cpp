#include "tools/upgradectl/components.h"

#include <unistd.h>

#include <optional>

#include "platform/mcu/mcu_image.h"
#include "platform/mcu/srecord.h"
#include "tools/upgradectl/signing.h"
#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

constexpr const char* kMcuToolHint = "make it again with objcopy -O srec or srec_cat";
constexpr const char* kMcuApplicationHint =
    "make it again with objcopy -O srec --change-addresses 0x8000, see docs/mcu.md";
constexpr const char* kMcuFlashDriverHint =
    "make it again with objcopy -O srec --change-addresses 0x20000000, see docs/mcu.md";

ToolError refused(const fs::path& path, const std::string& fault, const std::string& next) {
    return {ExitCode::kRefused, "the component '" + path.string() + "' " + fault, next};
}

bool isAbsent(const fs::path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type() == fs::file_type::not_found;
}

void requireFilledFile(const fs::path& path) {
    if (isAbsent(path)) {
        throw refused(path, "is missing", "put it into the component directory");
    }
    std::error_code ignored;
    const fs::file_status status = fs::status(path, ignored);
    if (status.type() == fs::file_type::not_found) {
        throw refused(path, "is a link to nothing", "repair the link or put the file itself there");
    }
    if (!fs::is_regular_file(status)) {
        throw refused(path, "is no regular file", "put the file itself there");
    }
    if (access(path.c_str(), R_OK) != 0) {
        throw refused(path, "cannot be read", "check its permissions");
    }
    if (fs::file_size(path) == 0) {
        throw refused(path, "is empty", "put the whole file there");
    }
}

const fs::path& pathOf(const std::vector<Component>& components, const std::string& name) {
    for (const Component& component : components) {
        if (component.name == name) {
            return component.path;
        }
    }
    throw ToolError(ExitCode::kRefused, "there is no component '" + name + "'", "add it");
}

std::vector<kavro::Segment> readSegments(const fs::path& path) {
    std::string error;
    const std::optional<kavro::SRecordFile> file = kavro::readSRecords(path.string(), error);
    if (!file) {
        throw refused(path, "holds no valid S-records (" + error + ")", kMcuToolHint);
    }
    return file->segments;
}

void checkMcuApplication(const fs::path& path, int packageVersion) {
    const std::vector<kavro::Segment> segments = readSegments(path);
    std::string error;
    if (!kavro::checkApplication(segments, error)) {
        throw refused(path, "is no application of the microcontroller (" + error + ")", kMcuApplicationHint);
    }
    const std::optional<int> version = kavro::applicationVersion(segments);
    if (version != packageVersion) {
        throw refused(path,
                      "carries version " + std::to_string(version.value_or(-1)) + ", the package " +
                          std::to_string(packageVersion),
                      "give --version with the microcontroller's version in third place");
    }
}

void checkMcuFlashDriver(const fs::path& path) {
    std::string error;
    if (!kavro::checkFlashDriver(readSegments(path), error)) {
        throw refused(path, "is no flash driver of the microcontroller (" + error + ")", kMcuFlashDriverHint);
    }
}

}  // namespace

std::vector<Component> findComponents(const fs::path& directory) {
    const fs::path root = fs::absolute(directory);
    if (!fs::is_directory(root)) {
        throw ToolError(ExitCode::kRefused,
                        "the component directory '" + directory.string() + "' is no directory",
                        "give the directory that holds the components");
    }
    std::vector<Component> components;
    for (const char* name : kComponentNames) {
        const fs::path path = root / name;
        if (name == std::string(kVersionList) && isAbsent(path)) {
            continue;
        }
        requireFilledFile(path);
        components.push_back({name, path});
    }
    return components;
}

void checkMcuComponents(const std::vector<Component>& components, const PackageVersion& version) {
    checkMcuApplication(pathOf(components, kMcuApplication), version.mcu);
    checkMcuFlashDriver(pathOf(components, kMcuFlashDriver));
}

std::string makeVersionList(const std::vector<Component>& components, const PackageVersion& version) {
    std::string text = "version " + formatVersion(version) + "\n";
    for (const Component& component : components) {
        text += "sha256 " + fileDigest(component.path, Digest::kSha256) + " " + component.name + "\n";
    }
    return text;
}

}  // namespace upgradectl
