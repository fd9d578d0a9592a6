#include "package/internal/staging.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

#include "base/failure.h"

namespace kavro::package {

namespace fs = std::filesystem;

namespace {

// Not the standard library's search, which does not tell the directory that it has found missing.
fs::path temporaryRoot() {
    const char* chosen = std::getenv("TMPDIR");
    return chosen != nullptr && *chosen != '\0' ? chosen : "/tmp";
}

}  // namespace

StagingDirectory::StagingDirectory() {
    const fs::path root = temporaryRoot();
    std::string name = (root / "upgradectl.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
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
