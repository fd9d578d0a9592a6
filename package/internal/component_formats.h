// What each component must look like for the program that reads it on a device: kernel and device tree for the boot
// loader, the root file system for the kernel, the microcontroller's files for the flash driver. A device flashes
// whatever is signed; a wrong file would show only when it does not start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "package/version.h"

namespace kavro {
class SRecordReader;
}

namespace kavro::package {

struct FormatFault {
    std::string text;  // completes a sentence that begins with the component
    const char* next;  // what to do about it
};

// Looks at a component while its bytes go by, in bounded memory.
class FormatCheck {
  public:
    // Of a component by its name; one without a known format is always in order.
    explicit FormatCheck(std::string component);
    ~FormatCheck();

    // The next bytes, from the first one on.
    void take(const void* data, std::size_t size);

    // After the last byte, once. Nothing when the component is in order. version is that of the package, which the
    // microcontroller's application must carry.
    std::optional<FormatFault> fault(const Version& version);

  private:
    const std::string name;
    std::string head;  // its first bytes
    std::uint64_t bytes = 0;
    std::unique_ptr<SRecordReader> records;  // of the microcontroller's files
};

}  // namespace kavro::package
