#include "tools/upgradectl/archive.h"

#include "common/utility.h"
#include "tools/upgradectl/tool_error.h"

namespace upgradectl {

namespace {

// A word that the shell takes as it stands, whatever characters the text has.
std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace

void writeArchive(const std::filesystem::path& output, const std::filesystem::path& directory,
                  const std::vector<std::string>& names, std::time_t mtime) {
    std::string members;
    for (const std::string& name : names) {
        members += " " + shellQuoted(name);
    }
    // Owners, modes and times differ from machine to machine, and TAR_OPTIONS could change anything. Two
    // names of one file would give a link entry, which no device flashes. The archive goes through standard
    // output, since tar takes a file name with a colon for another host's.
    const int result = COMMON_YR::runSystem(
        "cd %s && TAR_OPTIONS= LC_ALL=C tar --create --file=- --format=gnu --dereference --hard-dereference "
        "--owner=0 --group=0 --numeric-owner --mode=0644 --mtime=@%lld --%s >%s",
        shellQuoted(directory.string()).c_str(), static_cast<long long>(mtime), members.c_str(),
        shellQuoted(output.string()).c_str());
    if (result < 0) {
        throw ToolError(ExitCode::kOther, "tar could not write the archive to '" + output.string() + "'",
                        "see its message above; check that GNU tar is installed and that there is room");
    }
}

}  // namespace upgradectl
