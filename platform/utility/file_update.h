// Giving a destination new content: through a file beside it that takes its place as a whole, or, where that
// cannot be (a device, a FIFO, a mount point, a directory that may not be written), into the destination as it stands.
#pragma once

#include <sys/types.h>

#include "base/file_descriptor.h"
#include "base/part_file.h"
#include "platform/utility/destination.h"

namespace kavro {

// Needs a CancelHold around it. One that is destroyed before commit() leaves the old content, except that a
// regular file that was written in place is left empty rather than half written.
class FileUpdate {
  public:
    FileUpdate() = default;
    FileUpdate(const FileUpdate&) = delete;
    FileUpdate& operator=(const FileUpdate&) = delete;
    ~FileUpdate();

    // Prepares for size bytes. A new file gets `mode` less the umask; one that replaces another keeps that
    // one's owner and mode. `spared`, if not null, is a file that must not be disturbed.
    bool begin(const Destination& place, off_t size, mode_t mode, const struct stat* spared);

    int fd() const { return writesInPlace() ? inPlace.get() : part.fd(); }
    bool writesInPlace() const { return inPlace.valid(); }

    // Makes the content, which ends at `size` in a regular file, the destination's own and brings it to
    // storage.
    bool commit(off_t size);

  private:
    bool beginInPlace(off_t size);
    bool copyIntoPlace(off_t size);
    bool commitInPlace(off_t size);

    Destination destination;
    PartFile part;
    FileDescriptor inPlace;
    bool endsHalfWritten = false;
};

}  // namespace kavro
