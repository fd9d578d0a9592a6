#include "package/internal/archive.h"

#include <unistd.h>

#include "base/child_process.h"
#include "base/failure.h"
#include "common/cancellation.h"

namespace kavro::package {

namespace {

// Called with the archive, the directory, the time and the names. Owners, modes and times differ from machine to machine.
// Two names of one file would give a link entry, which no device flashes. The archive
// goes through standard output, since tar takes a file name with a colon for another host's.
constexpr const char* kScript =
    "out=$1 mtime=$3; cd \"$2\" && shift 3 && "
    "LC_ALL=C tar --create --file=- --format=gnu --dereference --hard-dereference "
    "--owner=0 --group=0 --numeric-owner --mode=0644 --mtime=\"@$mtime\" -- \"$@\" >\"$out\"";

}  // namespace

void writeArchive(const std::filesystem::path& output, const std::filesystem::path& directory,
                  const std::vector<std::string>& names, std::time_t mtime) {
    const COMMON_YR::CancelHold hold;
    const std::string time = std::to_string(mtime);
    std::vector<const char*> words = {"sh",        "-c", kScript, "sh", output.c_str(), directory.c_str(),
                                      time.c_str()};
    for (const std::string& name : names) {
        words.push_back(name.c_str());
    }
    words.push_back(nullptr);
    ChildProcess shell;
    if (!shell.start("/bin/sh", words.data(), -1, STDERR_FILENO) || !shell.succeeds(hold)) {
        throw Failure(ErrorCode::kOther, "tar could not write the archive to '" + output.string() + "'",
                      "see its message above; check that GNU tar is installed and that there is room");
    }
}

}  // namespace kavro::package
