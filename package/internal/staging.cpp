#include "package/internal/staging.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

#include "base/failure.h"

namespace kavro::package {

namespace fs = std::filesystem;

StagingDirectory::StagingDirectory() {
    std::error_code error;
    const fs::path root = fs::temp_directory_path(error);
    std::string name = (root / "upgradectl.XXXXXX").string();
    if (error || mkdtemp(name.data()) == nullptr) {
        throw Failure(ErrorCode::kOther, "no temporary directory can be made in '" + root.string() + "'",
                      "check TMPDIR, its permissions and the room there");
    }
    directory = name;
}

StagingDirectory::~StagingDirectory() {
    std::error_code ignored;
    fs::remove_all(directory, ignored);
}

void writeStaged(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        throw Failure(ErrorCode::kOther, "'" + path.string() + "' cannot be written",
                      "make room in the directory for temporary files, or set TMPDIR to another");
    }
}

}  // namespace kavro::package
