#include "package/internal/staging.h"

#include <cstdlib>
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

}  // namespace kavro::package
