#include "base/srecord.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>

#include "base/errno_text.h"
#include "base/hex_digit.h"
#include "base/raw_file.h"

namespace kavro {
namespace {

constexpr std::size_t kMaxCountedBytes = 255;                    // what the byte count can say
constexpr std::size_t kMaxLineChars = 4 + 2 * kMaxCountedBytes;  // "St", the count, the counted bytes
constexpr std::size_t kReadBlockBytes = 16384;
constexpr std::size_t kMaxDataRecords = std::size_t{1} << 20;

enum class RecordKind { kHeader, kData, kCount, kEnd, kUnknown };

struct RecordType {
    RecordKind kind;
    std::size_t addressBytes;
};

// By the digit behind the 'S'.
constexpr std::array<RecordType, 10> kRecordTypes = {{
    {RecordKind::kHeader, 2},
    {RecordKind::kData, 2},
    {RecordKind::kData, 3},
    {RecordKind::kData, 4},
    {RecordKind::kUnknown, 0},
    {RecordKind::kCount, 2},
    {RecordKind::kCount, 3},
    {RecordKind::kEnd, 4},
    {RecordKind::kEnd, 3},
    {RecordKind::kEnd, 2},
}};

// Converts the digits from the third character of a line on. The line's length must be even.
bool decodeHex(const std::string& line, std::vector<std::uint8_t>& bytes) {
    bytes.clear();
    for (std::size_t index = 2; index < line.size(); index += 2) {
        const int high = hexDigit(line[index]);
        const int low = hexDigit(line[index + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return true;
}

struct Record {
    RecordKind kind = RecordKind::kUnknown;
    std::uint32_t address = 0;  // or the number of records
    const std::uint8_t* data = nullptr;
    std::size_t dataSize = 0;
};

// One data record: where its bytes lie in the common store, and the line it came from.
struct Piece {
    std::uint32_t address;
    std::uint32_t line;
    std::uint32_t storeOffset;
    std::uint32_t size;
};

}  // namespace

std::string hexAddress(std::uint64_t address) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "0x%08llX", static_cast<unsigned long long>(address));
    return text.data();
}

std::string outsideOf(const AddressRange& range, std::uint32_t address, std::uint64_t end) {
    if (address >= range.start && end <= range.end()) {
        return {};
    }
    return "data at " + hexAddress(address) + ".." + hexAddress(end - 1) + " is outside of " +
           hexAddress(range.start) + ".." + hexAddress(range.end() - 1);
}

class SRecordReader::Impl {
  public:
    Impl(const AddressRange& allowed, std::size_t limit)
        : range(allowed),
          dataLimit(std::min<std::size_t>(limit, std::numeric_limits<std::uint32_t>::max())) {}

    void take(const char* characters, std::size_t size) {
        for (std::size_t index = 0; index < size && !failed(); ++index) {
            if (characters[index] == '\n') {
                endLine();
            } else if (line.size() > kMaxLineChars) {
                refuseLongLine();
            } else {
                line.push_back(characters[index]);
            }
        }
    }

    [[nodiscard]] bool failed() const { return !reason.empty(); }

    std::optional<SRecordFile> finish(std::string& error) {
        if (!failed() && !line.empty()) {
            endLine();
        }
        SRecordFile file;
        if (!failed()) {
            end(file);
        }
        if (failed()) {
            error = "line " + std::to_string(lineNumber) + ": " + reason;
            return std::nullopt;
        }
        return file;
    }

  private:
    void endLine() {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.size() > kMaxLineChars) {
            refuseLongLine();
            return;
        }
        ++lineNumber;
        if (!line.empty()) {
            Record record;
            reason = decode(record);
            if (reason.empty()) {
                reason = accept(record);
            }
            line.clear();
        }
    }

    void refuseLongLine() {
        ++lineNumber;
        reason = "the line is longer than any record";
    }

    // lineNumber becomes that of the line to blame.
    void end(SRecordFile& file) {
        if (!anyRecord) {
            reason = "holds no record";
            return;
        }
        // Either one shows that the file is whole; some tools write no end record, others no count.
        if (!ended && !counted) {
            reason = "the end record is missing, and there is no count of records";
            return;
        }
        std::stable_sort(pieces.begin(), pieces.end(),
                         [](const Piece& left, const Piece& right) { return left.address < right.address; });
        reason = findOverlap();
        if (reason.empty()) {
            join(file.segments);
            file.header = header;
            file.startAddress = startAddress;
        }
    }

    // Splits the line into its fields. Returns what is wrong with it, or "".
    std::string decode(Record& record) {
        if (line[0] != 'S') {
            return "the record does not begin with 'S'";
        }
        if (line.size() < 4 || line.size() % 2 != 0) {
            return "the record is cut short";
        }
        const bool typeIsDigit = line[1] >= '0' && line[1] <= '9';
        const RecordType type =
            typeIsDigit ? kRecordTypes[static_cast<std::size_t>(line[1] - '0')] : kRecordTypes[4];
        if (type.kind == RecordKind::kUnknown) {
            return std::string("unknown record type 'S") + line[1] + "'";
        }
        if (!decodeHex(line, bytes)) {
            return "a character is no hexadecimal digit";
        }
        if (bytes[0] != bytes.size() - 1) {
            return "the byte count says " + std::to_string(bytes[0]) + ", there are " +
                   std::to_string(bytes.size() - 1);
        }
        if (bytes[0] < type.addressBytes + 1) {
            return "the byte count is too small for the record's type";
        }
        if (checksumOf(bytes) != bytes.back()) {
            return "the checksum is wrong";
        }
        record.kind = type.kind;
        for (std::size_t index = 1; index <= type.addressBytes; ++index) {
            record.address = record.address << 8 | bytes[index];
        }
        record.data = bytes.data() + 1 + type.addressBytes;
        record.dataSize = bytes.size() - 2 - type.addressBytes;
        return {};
    }

    static std::uint8_t checksumOf(const std::vector<std::uint8_t>& counted) {
        unsigned sum = 0;
        for (std::size_t index = 0; index + 1 < counted.size(); ++index) {
            sum += counted[index];
        }
        return static_cast<std::uint8_t>(~sum);
    }

    std::string accept(const Record& record) {
        if (ended) {
            return "a record follows the end record";
        }
        if (counted && record.kind != RecordKind::kEnd) {
            return "only the end record may follow the count of records";
        }
        const bool first = !anyRecord;
        anyRecord = true;
        switch (record.kind) {
            case RecordKind::kHeader:
                return acceptHeader(record, first);
            case RecordKind::kData:
                return acceptData(record);
            case RecordKind::kCount:
                return acceptCount(record);
            default:
                return acceptEnd(record);
        }
    }

    std::string acceptHeader(const Record& record, bool first) {
        if (!first) {
            return "the header record is not the first record";
        }
        header.assign(reinterpret_cast<const char*>(record.data), record.dataSize);
        return {};
    }

    std::string acceptData(const Record& record) {
        ++dataRecords;
        if (record.dataSize == 0) {
            return {};
        }
        std::string outside =
            outsideOf(range, record.address, record.address + std::uint64_t{record.dataSize});
        if (!outside.empty()) {
            return outside;
        }
        if (store.size() + record.dataSize > dataLimit || pieces.size() == kMaxDataRecords) {
            return "the file holds more data than the limit of " + std::to_string(dataLimit) + " bytes in " +
                   std::to_string(kMaxDataRecords) + " records";
        }
        pieces.push_back({record.address, lineNumber, static_cast<std::uint32_t>(store.size()),
                          static_cast<std::uint32_t>(record.dataSize)});
        store.insert(store.end(), record.data, record.data + record.dataSize);
        return {};
    }

    std::string acceptCount(const Record& record) {
        counted = true;
        if (record.dataSize != 0) {
            return "a count record holds data";
        }
        if (record.address != dataRecords) {
            return "the count says " + std::to_string(record.address) + " data records, there are " +
                   std::to_string(dataRecords);
        }
        return {};
    }

    std::string acceptEnd(const Record& record) {
        ended = true;
        if (record.dataSize != 0) {
            return "the end record holds data";
        }
        startAddress = record.address;
        return {};
    }

    std::string findOverlap() {
        for (std::size_t index = 1; index < pieces.size(); ++index) {
            const Piece& previous = pieces[index - 1];
            const Piece& piece = pieces[index];
            if (previous.address + std::uint64_t{previous.size} > piece.address) {
                lineNumber = std::max(previous.line, piece.line);
                return "the data overlaps that of line " +
                       std::to_string(std::min(previous.line, piece.line));
            }
        }
        return {};
    }

    void join(std::vector<Segment>& segments) const {
        for (const Piece& piece : pieces) {
            if (segments.empty() || segments.back().end() != piece.address) {
                segments.push_back({piece.address, {}});
            }
            const auto begin = store.begin() + piece.storeOffset;
            std::vector<std::uint8_t>& target = segments.back().bytes;
            target.insert(target.end(), begin, begin + piece.size);
        }
    }

    const AddressRange range;
    const std::size_t dataLimit;
    std::string line;                 // as far as it has come, without its end
    std::uint32_t lineNumber = 0;     // of the last whole one
    std::string reason;               // what is wrong with it; empty as long as nothing is
    std::vector<std::uint8_t> bytes;  // of the record at hand
    std::vector<std::uint8_t> store;
    std::vector<Piece> pieces;
    std::string header;
    std::uint32_t startAddress = 0;
    std::size_t dataRecords = 0;
    bool anyRecord = false;
    bool counted = false;
    bool ended = false;
};

SRecordReader::SRecordReader(const AddressRange& range, std::size_t dataLimit)
    : impl(std::make_unique<Impl>(range, dataLimit)) {}

SRecordReader::~SRecordReader() = default;

void SRecordReader::take(const void* data, std::size_t size) {
    impl->take(static_cast<const char*>(data), size);
}

bool SRecordReader::failed() const {
    return impl->failed();
}

std::optional<SRecordFile> SRecordReader::finish(std::string& error) {
    return impl->finish(error);
}

std::optional<SRecordFile> readSRecords(const std::string& path, std::string& error,
                                        const AddressRange& range, std::size_t dataLimit) {
    RawFile file;
    if (!file.open(path, O_RDONLY | O_NONBLOCK)) {
        error = fileError(path, "cannot be opened", errno);
        return std::nullopt;
    }
    if (file.size() < 0) {
        error = fileError(path, "is no regular file", 0);
        return std::nullopt;
    }

    SRecordReader reader(range, dataLimit);
    std::vector<char> block(kReadBlockBytes);
    long long offset = 0;
    for (long count = 1; count > 0 && !reader.failed(); offset += count) {
        count = file.readAt(block.data(), block.size(), offset);
        if (count < 0) {
            error = fileError(path, "cannot be read", errno);
            return std::nullopt;
        }
        reader.take(block.data(), static_cast<std::size_t>(count));
    }

    std::optional<SRecordFile> records = reader.finish(error);
    if (!records) {
        error.insert(0, path + ": ");
    }
    return records;
}

}  // namespace kavro
