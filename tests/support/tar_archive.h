// Tar archives byte by byte, right and wrong ones.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

inline constexpr std::size_t kTarBlockBytes = 512;

struct TarEntry {
    std::string name;
    std::string content{};
    char type =
        '0';  // '0' file, '1' hard link, '2' symbolic link, '3' character device, '5' directory, '6' FIFO ...
    std::string link{};  // where a link leads
    long size = -1;      // as the header states it; -1: that of the content
    unsigned mode = 0644;
    unsigned owner = 0;  // and group
    unsigned major = 0;  // of a device
    unsigned minor = 0;
};

// The entry's header, with the right checksum, and its content, filled up to whole blocks. A name or link that is longer
// than its field is cut off.
std::string tarEntry(const TarEntry& entry);

// Makes the checksum of the header at this offset right again.
void repairChecksum(std::string& archive, std::size_t headerAt);

// The entries and the end mark.
std::string tarArchive(const std::vector<TarEntry>& entries);

// Where the headers of the entries lie in such an archive.
std::vector<std::size_t> headersOf(const std::vector<TarEntry>& entries);

// The text of pax attributes: "LENGTH KEYWORD=VALUE\n" for each.
std::string paxAttribute(const std::string& keyword, const std::string& value);

}  // namespace testsupport
