// rmFile, getFileSize, isFileExist, getFiles: what concerns a file's directory entry.

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"

namespace COMMON_YR {
namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

// Links are followed; a link that leads nowhere counts as a file.
bool isFile(DIR* directory, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) {
        return entry.d_type == DT_REG;
    }
    struct stat status;
    return fstatat(dirfd(directory), entry.d_name, &status, 0) != 0 || S_ISREG(status.st_mode);
}

// Appends the entry names; false when the directory could not be read to its end.
bool listFiles(DIR* directory, std::vector<std::string>& names) {
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory);
        if (entry == nullptr) {
            return errno == 0;
        }
        if (isFile(directory, *entry)) {
            names.emplace_back(entry->d_name);
        }
    }
}

}  // namespace

int rmFile(std::string path) {
    const CancelHold hold;
    if (unlink(path.c_str()) != 0) {
        return errno == ENOENT || errno == ENOTDIR ? kErrNoFile : -1;
    }
    // The file is gone for everyone who looks; that a power cut does not bring it back is the best that can
    // be tried.
    (void)kavro::flushDirectory(kavro::parentDirectory(path));
    return 0;
}

long getFileSize(const char* path) {
    const CancelHold hold;
    struct stat status;
    if (path == nullptr || stat(path, &status) != 0 || !S_ISREG(status.st_mode)) {
        return -1;
    }
    return status.st_size;
}

bool isFileExist(const char* path) {
    const CancelHold hold;
    struct stat status;
    return path != nullptr && (stat(path, &status) == 0 || errno == EIO);
}

int getFiles(const char* dir, std::vector<std::string>& names, bool flag) {
    (void)flag;
    const CancelHold hold;
    if (dir == nullptr) {
        return -1;
    }
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(dir));
    std::vector<std::string> found;
    if (directory == nullptr || !listFiles(directory.get(), found)) {
        return -1;
    }
    std::sort(found.begin(), found.end());
    names.insert(names.end(), found.begin(), found.end());
    return 0;
}

}  // namespace COMMON_YR
