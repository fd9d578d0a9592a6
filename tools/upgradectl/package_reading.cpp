#include "tools/upgradectl/package_reading.h"

#include <fstream>

#include "tools/upgradectl/package_trailer.h"

namespace upgradectl {

std::string readPackageVersion(const std::filesystem::path& package) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(package, error) ||
        std::filesystem::file_size(package, error) != kPackageBytes) {
        return "";
    }
    std::ifstream file(package, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(kPackageBytes - kTrailerBytes));
    std::string block(kTrailerBytes, '\0');
    if (!file.read(block.data(), static_cast<std::streamsize>(block.size()))) {
        return "";
    }
    const TrailerReading reading = decodeTrailer(block);
    return reading.faults.empty() ? formatVersion(reading.trailer.version) : "";
}

}  // namespace upgradectl
