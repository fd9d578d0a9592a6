// Reading a package's payload, entry by entry, without unpacking it.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "package/entry.h"

namespace kavro::package {

class ArchiveVisitor {
  public:
    virtual ~ArchiveVisitor() = default;
    // Returns whether the contents are wanted.
    virtual bool begin(const Entry& entry) = 0;
    // The next bytes of the contents; what a sparse entry leaves out comes as zeros.
    virtual void contents(const void* data, std::size_t size) = 0;
    // After the contents, when they were wanted and all of them have come.
    virtual void end() = 0;
};

// Points data at the next bytes of the archive and returns their number, 0 at the end, -1 on failure. They stay until the
// next call.
using ArchiveSource = std::function<long(const void*& data)>;

// Walks through a plain tar archive. Returns "", or what is wrong with it, where the walk has ended. Does not throw unless
// the visitor does. The source may not have come to its end: what lies behind the archive's end mark is not read.
std::string walkArchive(ArchiveSource source, ArchiveVisitor& visitor);

}  // namespace kavro::package
