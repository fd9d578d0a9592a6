// What a power cut leaves of a disk that holds back what it was not told to flush. The virtual machine has logged every
// write to its disk, in the form of Linux' dm-log-writes; this brings an image to the state of any moment in the log.
//
//   disk-replay count LOG                     prints how many entries the log has
//   disk-replay find LOG FIRST_BYTE BYTES     prints the numbers of the first and the last entry that write there
//   disk-replay cut LOG IMAGE ENTRY SEED      the power goes behind entry number ENTRY
//
// Entries are counted from 1, and bytes from the beginning of the disk.
//
// Up to the last flush everything has arrived. Of what was written since then any part has: which one follows from
// SEED, with 0 none of it. A write that was to be durable by itself (FUA) has arrived.
#include <endian.h>
#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "base/raw_file.h"

namespace {

using kavro::RawFile;

// The log: a sector with the header, then each entry: a sector that describes it, and its data.
struct Header {
    std::uint64_t magic;
    std::uint64_t version;
    std::uint64_t entryCount;
    std::uint32_t sectorBytes;
};
struct Description {
    std::uint64_t sector;
    std::uint64_t sectorCount;
    std::uint64_t flags;
    std::uint64_t dataBytes;
};
constexpr std::uint64_t kMagic = 0x6a736677736872;
constexpr std::uint64_t kFlush = 1;
constexpr std::uint64_t kDurable = 2;
constexpr std::uint64_t kDiscard = 4;

struct Entry {
    Description what;
    long long dataAt;  // in the log
};

struct Log {
    RawFile file;
    std::uint32_t sectorBytes = 0;
    std::vector<Entry> entries;
};

bool fail(const std::string& text) {
    std::fprintf(stderr, "disk-replay: %s\n", text.c_str());
    return false;
}

template <typename Record>
bool readRecord(const RawFile& file, long long at, Record& record) {
    return file.readAt(&record, sizeof record, at) == static_cast<long>(sizeof record);
}

bool readLog(const std::string& path, Log& log) {
    Header header{};
    if (!log.file.open(path, O_RDONLY) || !readRecord(log.file, 0, header) ||
        le64toh(header.magic) != kMagic) {
        return fail(path + " is no log of writes");
    }
    log.sectorBytes = le32toh(header.sectorBytes);
    long long at = log.sectorBytes;
    for (std::uint64_t index = 0; index < le64toh(header.entryCount); ++index) {
        Description what{};
        if (!readRecord(log.file, at, what)) {
            return fail(path + " ends within an entry");
        }
        what = {le64toh(what.sector), le64toh(what.sectorCount), le64toh(what.flags),
                le64toh(what.dataBytes)};
        at += log.sectorBytes;
        log.entries.push_back({what, at});
        if ((what.flags & kDiscard) == 0) {
            at += static_cast<long long>(what.sectorCount) * log.sectorBytes;
        }
    }
    return true;
}

bool apply(const Log& log, const Entry& entry, const RawFile& image) {
    std::vector<std::uint8_t> data(entry.what.sectorCount * log.sectorBytes);
    const bool hasData = (entry.what.flags & kDiscard) == 0;
    if (hasData &&
        log.file.readAt(data.data(), data.size(), entry.dataAt) != static_cast<long>(data.size())) {
        return fail("the log ends within the data of an entry");
    }
    if (!image.writeAt(data.data(), data.size(),
                       static_cast<long long>(entry.what.sector) * log.sectorBytes)) {
        return fail("the image cannot be written");
    }
    return true;
}

// The number of entries that a flush has made durable, of the first `end`.
std::size_t flushedOf(const Log& log, std::size_t end) {
    while (end > 0 && (log.entries[end - 1].what.flags & kFlush) == 0) {
        --end;
    }
    return end;
}

bool cut(const Log& log, const RawFile& image, std::size_t end, unsigned seed) {
    const std::size_t flushed = flushedOf(log, end);
    std::mt19937 random(seed);
    std::size_t lost = 0;
    for (std::size_t index = 0; index < end; ++index) {
        const Entry& entry = log.entries[index];
        const bool held = index >= flushed && (entry.what.flags & kDurable) == 0;
        if (held && (seed == 0 || random() % 2 == 0)) {
            ++lost;
        } else if (!apply(log, entry, image)) {
            return false;
        }
    }
    std::printf("%zu of %zu writes since the last flush are lost\n", lost, end - flushed);
    return true;
}

bool touches(const Log& log, const Entry& entry, std::uint64_t first, std::uint64_t bytes) {
    const std::uint64_t begin = entry.what.sector * log.sectorBytes;
    const std::uint64_t end = begin + entry.what.sectorCount * log.sectorBytes;
    const bool writes = (entry.what.flags & kDiscard) == 0;
    return writes && begin < first + bytes && first < end;
}

bool find(const Log& log, std::uint64_t first, std::uint64_t bytes) {
    std::size_t from = 0;
    std::size_t to = 0;
    for (std::size_t index = 0; index < log.entries.size(); ++index) {
        if (touches(log, log.entries[index], first, bytes)) {
            to = index + 1;
            from = from == 0 ? to : from;
        }
    }
    if (to == 0) {
        return fail("the log has no write there");
    }
    std::printf("%zu %zu\n", from, to);
    return true;
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    const std::vector<std::string> words(arguments + 1, arguments + argumentCount);
    const auto number = [&words](std::size_t word) {
        return std::strtoull(words[word].c_str(), nullptr, 10);
    };
    Log log;
    if (words.size() == 2 && words[0] == "count") {
        return readLog(words[1], log) && std::printf("%zu\n", log.entries.size()) > 0 ? EXIT_SUCCESS
                                                                                      : EXIT_FAILURE;
    }
    if (words.size() == 4 && words[0] == "find") {
        return readLog(words[1], log) && find(log, number(2), number(3)) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (words.size() != 5 || words[0] != "cut") {
        fail("usage: disk-replay count LOG | find LOG FIRST_BYTE BYTES | cut LOG IMAGE ENTRY SEED");
        return EXIT_FAILURE;
    }
    RawFile image;
    const std::size_t end = number(3);
    const auto seed = static_cast<unsigned>(number(4));
    if (!readLog(words[1], log)) {
        return EXIT_FAILURE;
    }
    if (end > log.entries.size() || !image.open(words[2], O_RDWR)) {
        fail("the log has no entry " + words[3] + ", or " + words[2] + " cannot be opened");
        return EXIT_FAILURE;
    }
    return cut(log, image, end, seed) ? EXIT_SUCCESS : EXIT_FAILURE;
}
