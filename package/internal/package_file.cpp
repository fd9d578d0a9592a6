#include "package/internal/package_file.h"

#include <fcntl.h>

#include <cerrno>

#include "base/errno_text.h"
#include "base/failure.h"
#include "package/trailer.h"

namespace kavro::package {

namespace {

Failure noPackage(const std::filesystem::path& path, const std::string& fault) {
    return {ErrorCode::kRefused, "the package '" + path.string() + "' " + fault,
            "give a package that 'upgradectl pack' made, and transfer it again if it came from elsewhere"};
}

}  // namespace

RawFile openPackage(const std::filesystem::path& path) {
    RawFile file;
    struct stat status = {};
    if (!file.open(path.string(), O_RDONLY | O_NONBLOCK) || !file.status(status)) {
        throw noPackage(path, "cannot be read: " + reasonOf(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw noPackage(path, "is no regular file");
    }
    if (static_cast<std::uint64_t>(status.st_size) != kPackageBytes) {
        throw noPackage(path, "has " + std::to_string(status.st_size) + " bytes, a package has exactly " +
                                  std::to_string(kPackageBytes));
    }
    return file;
}

std::string readTrailerBlock(const RawFile& file, const std::filesystem::path& path) {
    std::string block(kTrailerBytes, '\0');
    if (file.readAt(block.data(), block.size(), kMaxPayloadBytes) != static_cast<long>(block.size())) {
        throw noPackage(path, "cannot be read: " + reasonOf(errno));
    }
    return block;
}

}  // namespace kavro::package
