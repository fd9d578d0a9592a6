// The file calls that the libraries share: complete transfers in spite of signals and short results,
// and flushing. All need a CancelHold around them; errno tells the cause of a failure.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>

#include "base/file_descriptor.h"

namespace kavro {

// Opens for reading; never waits, not even for the writer of a FIFO.
FileDescriptor openToRead(const std::string& path);

// Reads until length bytes are there or the file ends. Returns the number of bytes, negative on failure.
ssize_t readFully(int fd, char* buffer, std::size_t length);
ssize_t readFullyAt(int fd, char* buffer, std::size_t length, off_t offset);

// The first `most` bytes of a file, or all that it has. False with errno set.
[[nodiscard]] bool readBeginning(const std::string& path, std::size_t most, std::string& text);

// Writes everything. A descriptor that does not block is waited for. A reader that went away is the failure
// EPIPE.
bool writeFully(int fd, const char* data, std::size_t length);
bool writeFullyAt(int fd, const char* data, std::size_t length, off_t offset);

// From now on the transfers of an open file go past the cache, where its file system can: faster for much that nobody
// reads soon. Memory, offsets and sizes must be multiples of kDirectAlignment (aligned_buffer.h), up to leaveDirect().
void enterDirect(int fd);
// From now on they go through the cache. False when they did already.
bool leaveDirect(int fd);
// As writeFullyAt(), and leaves direct transfers with the first one that they do not allow.
bool writeDirectAt(int fd, const char* data, std::size_t length, off_t offset);

// Brings a file's content to storage. True for something that has no storage, such as a FIFO or /dev/null.
bool flushFile(int fd);

// Brings a directory's entries to storage.
bool flushDirectory(const std::string& path);

bool isSameFile(const struct stat& one, const struct stat& other);
// Whether the path names the open file, and not another one by now or a link to it.
bool isNamed(int fd, const std::string& path);

// The directory that holds the entry `path`.
std::string parentDirectory(const std::string& path);

}  // namespace kavro
