// Writing a file so that it appears under its name only when it is whole.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

// A new file beside its destination, which takes the destination's name at commit() and is removed without
// it.
class OutputFile {
  public:
    // Throws ToolError when the destination is something else than a regular file or cannot be written.
    explicit OutputFile(const std::filesystem::path& destination);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // The absolute path of the file as long as it is not committed.
    const std::filesystem::path& path() const { return temporary; }

    // Writes data at an offset; the bytes before it that were never written read as zero and take no room.
    void writeAt(std::uint64_t offset, const std::string& data);

    // Flushes the file to storage and gives it its name. Throws ToolError, the destination untouched, on
    // failure.
    void commit();

  private:
    ToolError failure(const char* step) const;

    std::filesystem::path destination;
    std::filesystem::path temporary;
    int descriptor = -1;
};

}  // namespace upgradectl
