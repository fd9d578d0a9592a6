// A file that grows beside the one it will replace.
//
// It is called NAME.part, or NAME.part1, NAME.part2 ... while other writers of the same file are at work, so
// what a power cut leaves behind is reused by the next writer and caught by `rm DIRECTORY/*`. A lock on the
// file tells a writer at work from such a leftover; where files have no locks, every name that exists is taken.
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/file_descriptor.h"

namespace kavro {

class PartFile {
  public:
    PartFile() = default;
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    // Removes the file unless it was committed.
    ~PartFile();

    // Makes an empty file beside `replaced`, with a mode as open(2) takes it. `spared`, if not null, is a
    // file that is never taken for a leftover. False, with errno set, on failure.
    bool create(const std::string& replaced, mode_t mode, const struct stat* spared);

    int fd() const { return file.get(); }
    // Empty before create() and after commit().
    const std::string& path() const { return name; }

    // Flushes the content, lets it take the replaced file's place and flushes the directory.
    bool commit();
    // Whether a commit failed since nothing can take that place. The content is still there then.
    bool isPlaceBusy() const { return placeBusy; }

  private:
    enum class Claim { kDone, kTaken, kFailed };
    Claim claim(const std::string& candidate, mode_t mode, const struct stat* spared);

    std::string target;
    std::string name;  // empty: nothing to remove
    bool placeBusy = false;
    FileDescriptor file;  // locked; closed after the removal, so that nobody else takes the name in between
};

}  // namespace kavro
