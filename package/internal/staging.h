// A directory of temporary files that is removed with all it holds.
#pragma once

#include <filesystem>
#include <string>

namespace kavro::package {

class StagingDirectory {
  public:
    // In the directory for temporary files ($TMPDIR, else /tmp). Throws Failure when it cannot be made.
    StagingDirectory();
    ~StagingDirectory();
    StagingDirectory(const StagingDirectory&) = delete;
    StagingDirectory& operator=(const StagingDirectory&) = delete;

    const std::filesystem::path& path() const { return directory; }

  private:
    std::filesystem::path directory;
};

// Writes a file in such a directory. Throws Failure (other).
void writeStaged(const std::filesystem::path& path, const std::string& content);

}  // namespace kavro::package
