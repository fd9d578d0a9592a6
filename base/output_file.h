// Writing a file so that it appears under its name only when it is whole.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/failure.h"
#include "base/part_file.h"

namespace kavro {

// A new file beside its destination, which takes the destination's name at commit() and is removed without it. Throws
// Failure (other).
class OutputFile {
  public:
    // Throws when the destination is something else than a regular file or cannot be written. A link to one stays a link.
    explicit OutputFile(const std::filesystem::path& destination);

    // The absolute path of the file as long as it is not committed.
    const std::string& path() const { return part.path(); }

    // Writes data at an offset; the bytes before it that were never written read as zero and take no room.
    void writeAt(std::uint64_t offset, const std::string& data);

    // Brings the file to storage and gives it its name. Throws, the destination untouched, on failure.
    void commit();

  private:
    Failure failure(const char* step) const;

    std::filesystem::path destination;
    PartFile part;
};

}  // namespace kavro
