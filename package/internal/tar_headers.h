// A second look at the headers of a tar archive, as strict as the tar program of a device. libarchive makes the best of a
// header that is not as it should be, where that program ends with a failure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kavro::package {

class TarHeaderCheck {
  public:
    // The next bytes of the archive, in any portions.
    void take(const void* data, std::size_t size);

    // What is wrong with the first header that a device would stumble over; "" when there is none.
    const std::string& fault() const { return firstFault; }

  private:
    void checkHeader();
    void checkNumbers();
    std::string numberFault(std::size_t offset, std::size_t size) const;
    std::uint64_t storedBytes() const;

    std::array<char, 512> block{};  // the header that is being collected
    std::size_t filled = 0;
    std::uint64_t contentsLeft = 0;       // up to the next header
    bool sparseMap = false;               // the next block goes on with the map of a sparse file
    std::uint64_t contentsBehindMap = 0;  // of that file
    bool ended = false;
    std::string firstFault;
};

}  // namespace kavro::package
