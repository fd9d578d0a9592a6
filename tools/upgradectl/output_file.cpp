#include "tools/upgradectl/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "tools/upgradectl/path_relation.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

mode_t currentUmask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

}  // namespace

ToolError OutputFile::failure(const char* step) const {
    return {ExitCode::kOther,
            "'" + destination.string() + "' cannot be " + step + " (" +
                std::error_code(errno, std::generic_category()).message() + ")",
            "check the directory, its permissions and the room there"};
}

OutputFile::OutputFile(const fs::path& wanted) : destination(resolved(wanted)) {  // a link stays one
    std::error_code ignored;
    const fs::file_status status = fs::status(destination, ignored);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw ToolError(ExitCode::kOther, "'" + wanted.string() + "' exists and is no regular file",
                        "give another output file");
    }
    std::string name = (destination.parent_path() / ".upgradectl.XXXXXX").string();
    descriptor = mkostemp(name.data(), O_CLOEXEC);
    if (descriptor < 0) {
        throw failure("created");
    }
    temporary = name;
    fchmod(descriptor, 0666 & ~currentUmask());
}

OutputFile::~OutputFile() {
    if (!temporary.empty()) {
        unlink(temporary.c_str());
    }
    close(descriptor);
}

void OutputFile::writeAt(std::uint64_t offset, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t count =
            pwrite(descriptor, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (count < 0) {
            throw failure("written");
        }
        done += static_cast<std::size_t>(count);
    }
}

void OutputFile::commit() {
    if (fsync(descriptor) != 0) {
        throw failure("flushed to storage");
    }
    if (rename(temporary.c_str(), destination.c_str()) != 0) {
        throw failure("given its name");
    }
    temporary.clear();
}

}  // namespace upgradectl
