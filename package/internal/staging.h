// A directory of temporary files that is removed with all it holds.
#pragma once

#include <filesystem>

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

}  // namespace kavro::package
