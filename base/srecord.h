// Reader of Motorola S-record files, in which the microcontroller's application and its flash driver are
// delivered. Used by the flash driver of the microcontroller and by the packing tool.
//
//     S t cc aaaa.. dd.. kk        one record a line, all but the S in hexadecimal digits
//
//     t   type: 0 header; 1, 2, 3 data with an address of 2, 3, 4 bytes; 5, 6 the number of data records so far,
//         in 2, 3 bytes; 7, 8, 9 the end, with a start address of 4, 3, 2 bytes
//     cc  how many bytes follow: address, data and checksum
//     a   address, most significant byte first
//     d   data
//     kk  checksum: complement of the low byte of the sum of all bytes from cc on
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavro {

// A run of bytes at consecutive addresses.
struct Segment {
    std::uint32_t address = 0;
    std::vector<std::uint8_t> bytes;

    // The address behind the last byte; may be 2^32.
    [[nodiscard]] std::uint64_t end() const { return std::uint64_t{address} + bytes.size(); }
};

struct SRecordFile {
    std::string header;              // the text of the header record, "" without one
    std::vector<Segment> segments;   // in the order of their addresses, none empty, none touching another
    std::uint32_t startAddress = 0;  // of the end record, 0 without one
};

// A part of the address space.
struct AddressRange {
    std::uint32_t start = 0;
    std::uint64_t bytes = std::uint64_t{1} << 32;

    [[nodiscard]] std::uint64_t end() const { return start + bytes; }
};

// As errors show an address: "0x00008000".
std::string hexAddress(std::uint64_t address);

// "" when the bytes from `address` up to `end` lie in the range, else the reason for an error's text.
std::string outsideOf(const AddressRange& range, std::uint32_t address, std::uint64_t end);

// The most data that a file may hold in total, unless a caller sets another limit: keeps the memory bounded.
inline constexpr std::size_t kSRecordDataLimit = std::size_t{16} << 20;

// Reads such a text, which comes in portions, and checks every record: type, length, digits, checksum, count of records. A
// header may only be the first record; nothing may follow a count but the end, and nothing the end; one of the two must be
// there. Bytes given twice or outside of the range are refused. Lines end in LF or CR LF; empty lines mean nothing.
class SRecordReader {
  public:
    explicit SRecordReader(const AddressRange& range = {}, std::size_t dataLimit = kSRecordDataLimit);
    ~SRecordReader();

    // The next bytes of the text. What comes after something wrong is not looked at.
    void take(const void* data, std::size_t size);
    [[nodiscard]] bool failed() const;

    // After the last byte, once. Nothing, and in error a text that begins with the number of the line, when something is
    // wrong.
    std::optional<SRecordFile> finish(std::string& error);

  private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

// Reads a file in this way. Returns nothing, and in error a text with the file and the number of the line, when something
// is wrong.
std::optional<SRecordFile> readSRecords(const std::string& path, std::string& error,
                                        const AddressRange& range = {},
                                        std::size_t dataLimit = kSRecordDataLimit);

}  // namespace kavro
