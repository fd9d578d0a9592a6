// A file or block device that is read and written at given offsets, as the flash drivers and the emulated
// microcontroller do: no stream, no buffer, nothing created or resized.
//
// Its calls are cancellation points; whoever uses it on a thread that can be cancelled holds cancellation
// off.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <functional>
#include <string>

#include "base/file_descriptor.h"

namespace kavro {

// Asked before every block of a longer work. False gives the work up at that point.
using KeepGoing = std::function<bool()>;

class RawFile {
  public:
    // Opens an existing file with the flags of open(2), close-on-exec. False with errno set. One open per
    // object.
    [[nodiscard]] bool open(const std::string& path, int flags);

    // The same, to transfer past the cache where that is possible: for buffers and offsets that are multiples of
    // kDirectAlignment (aligned_buffer.h), until the first size that is not.
    [[nodiscard]] bool openDirect(const std::string& path, int flags);

    // As fstat(2). False with errno set.
    [[nodiscard]] bool status(struct stat& status) const;

    // The size in bytes of a regular file or a block device; -1 for anything else and on failure.
    [[nodiscard]] long long size() const;

    // Reads size bytes at offset, fewer only where the file ends. Returns the number read, -1 with errno set.
    [[nodiscard]] long readAt(void* buffer, std::size_t size, long long offset) const;

    // Writes all size bytes at offset. False with errno set.
    [[nodiscard]] bool writeAt(const void* data, std::size_t size, long long offset) const;

    // Waits until all that was written is on storage. False with errno set.
    [[nodiscard]] bool flush() const;

    // Lets go of the cached content, so that the next read comes from storage; reads far ahead
    // from then on.
    void dropCache() const;

  private:
    FileDescriptor descriptor;
};

}  // namespace kavro
