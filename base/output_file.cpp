#include "base/output_file.h"

#include <cerrno>
#include <system_error>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/path_relation.h"

namespace kavro {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kNewFileMode = 0666;

}  // namespace

Failure OutputFile::failure(const char* step) const {
    return {ErrorCode::kOther,
            "'" + destination.string() + "' cannot be " + step + " (" + reasonOf(errno) + ")",
            "check the directory, its permissions and the room there"};
}

OutputFile::OutputFile(const fs::path& wanted) : destination(resolved(wanted)) {
    std::error_code ignored;
    const fs::file_status status = fs::status(destination, ignored);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw Failure(ErrorCode::kOther, "'" + wanted.string() + "' exists and is no regular file",
                      "give another output file");
    }
    if (!part.create(destination.string(), kNewFileMode, nullptr)) {
        throw failure("created");
    }
}

void OutputFile::writeAt(std::uint64_t offset, const std::string& data) {
    if (!writeFullyAt(part.fd(), data.data(), data.size(), static_cast<off_t>(offset))) {
        throw failure("written");
    }
}

void OutputFile::commit() {
    if (!flushFile(part.fd())) {
        throw failure("flushed to storage");
    }
    if (!part.commit()) {
        throw failure("given its name");
    }
}

}  // namespace kavro
