// A second look at the headers of a tar archive, as strict as the tar program of a device and stricter. libarchive makes the
// best of a header that is not as it should be, where that program ends with a failure; and there are headers of which the two
// make different files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace kavro::package {

// An entry as a device sees it.
struct TarHeader {
    std::string name;
    std::uint64_t bytes = 0;  // of its contents
};

class TarHeaderCheck {
  public:
    // The next bytes of the archive, in any portions.
    void take(const void* data, std::size_t size);

    // What is wrong with the first header that a device would stumble over, or could take for something else; "" when there
    // is none.
    const std::string& fault() const { return firstFault; }

    // Once for each entry whose header has come, in their order; nothing when there is no further one.
    std::optional<TarHeader> next();

  private:
    std::size_t takeText(const char* bytes, std::size_t size);
    std::size_t takeBlock(const char* bytes, std::size_t size);
    void checkHeader();
    void checkNumbers();
    void checkType();
    void checkLongName();
    void checkAttributes();
    void refuseAttribute(const std::string& keyword, const std::string& value);
    std::string numberFault(std::size_t offset, std::size_t size) const;
    std::uint64_t statedBytes() const;
    std::string ownName() const;

    std::array<char, 512> block{};  // the header that is being collected
    std::size_t filled = 0;
    std::uint64_t contentsLeft = 0;  // up to the next header
    char textType = '\0';            // of the header whose text is being collected
    std::uint64_t textLeft = 0;
    std::string text;
    bool hasFront = false;                 // a header that tells more stands in front of the next one,
    std::optional<std::string> frontName;  // and gives it this name
    std::deque<TarHeader> entries;         // that next() has not given yet
    bool ended = false;
    std::string firstFault;
};

}  // namespace kavro::package
