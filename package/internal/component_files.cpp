#include "package/internal/component_files.h"

#include <unistd.h>

#include <functional>
#include <optional>

#include "base/failure.h"
#include "base/file_io.h"
#include "base/hex_digit.h"
#include "package/internal/component_formats.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReadBlockBytes = 65536;

bool isAbsent(const fs::path& path) {
    std::error_code ignored;
    return fs::symlink_status(path, ignored).type() == fs::file_type::not_found;
}

Failure unreadable(const fs::path& file) {
    return {ErrorCode::kRefused, "'" + file.string() + "' cannot be read",
            "check that it exists and is readable"};
}

// Hands out the file's content block by block. False when it cannot be read to its end.
bool readWhole(const fs::path& path, const std::function<void(const char* data, std::size_t size)>& take) {
    const FileDescriptor file = openToRead(path.string());
    std::vector<char> block(kReadBlockBytes);
    for (;;) {
        const ssize_t count = readFully(file.get(), block.data(), block.size());
        if (count <= 0) {
            return count == 0;
        }
        take(block.data(), static_cast<std::size_t>(count));
    }
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

ComponentContent readComponent(const Component& component, const Version& version) {
    ComponentContent content;
    Digest digest(Digest::Kind::kSha256);
    FormatCheck format(component.name);
    const auto take = [&](const char* data, std::size_t size) {
        content.bytes += size;
        digest.add(data, size);
        format.take(data, size);
    };
    if (!readWhole(component.path, take)) {
        throw unreadable(component.path);
    }
    content.sha256 = finished(digest);
    if (const std::optional<FormatFault> fault = format.fault(version)) {
        content.fault = {"the component '" + component.path.string() + "' " + fault->text,
                         std::string(fault->next) + "; --force packs it as it is", true};
    }
    return content;
}

ReleaseList makeReleaseList(const std::vector<Component>& components,
                            const std::vector<ComponentContent>& contents, const Version& version,
                            const std::optional<std::uint32_t>& epoch) {
    ReleaseList list;
    list.version = version;
    list.epoch = epoch;
    for (std::size_t index = 0; index < components.size(); ++index) {
        if (components[index].name != kVersionList) {
            list.components.push_back(
                {components[index].name, contents[index].bytes, hexText(contents[index].sha256)});
        }
    }
    return list;
}

}  // namespace kavro::package
