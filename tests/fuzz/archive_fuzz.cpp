// The payload of a package, as the tool reads it. An input is such an archive.

#include <algorithm>

#include "package/internal/archive_walk.h"
#include "package/internal/tar_headers.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::require;
using kavro::package::Entry;

constexpr std::size_t kMostWanted = std::size_t{1} << 20;

const char* const kTypes[] = {"file", "directory", "symbolic link", "hard link", "device", "fifo", "unknown"};

// Requires the order of the calls and that the contents are as long as they were said to be.
class CountingVisitor : public kavro::package::ArchiveVisitor {
  public:
    bool begin(const Entry& entry) override {
        require(std::count(std::begin(kTypes), std::end(kTypes), entry.type) == 1,
                "an entry has one of the types");
        const std::string name = kavro::package::unpackedName(entry);
        require(name.rfind("./", 0) != 0 && name.size() <= entry.name.size(), "a name loses only its front");
        wanted = entry.bytes <= kMostWanted && entry.type == "file";
        left = entry.bytes;
        ++entries;
        return wanted;
    }
    void contents(const void* data, std::size_t size) override {
        require(wanted && data != nullptr && size > 0 && size <= left, "contents come when they are wanted");
        left -= size;
        // The whole block must be readable.
        const auto* bytes = static_cast<const unsigned char*>(data);
        sum += bytes[0] + bytes[size - 1];
    }
    void end() override {
        require(wanted && left == 0, "all of the contents have come");
        wanted = false;
    }

    std::size_t entries = 0;

  private:
    bool wanted = false;
    std::uint64_t left = 0;
    unsigned long sum = 0;
};

struct Outcome {
    std::string fault;
    std::size_t entries = 0;
};

// In blocks of this size, as they may come from a file.
Outcome walk(const std::uint8_t* data, std::size_t size, std::size_t blockBytes) {
    std::size_t position = 0;
    CountingVisitor visitor;
    const auto next = [&](const void*& block) {
        const std::size_t count = std::min(blockBytes, size - position);
        block = data + position;
        position += count;
        return static_cast<long>(count);
    };
    const std::string fault = kavro::package::walkArchive(next, visitor);
    return {fault, visitor.entries};
}

// The headers as the stricter reader sees them, which gets them in portions of this size.
Outcome headersOf(const std::uint8_t* data, std::size_t size, std::size_t portion) {
    kavro::package::TarHeaderCheck check;
    for (std::size_t position = 0; position < size; position += std::min(portion, size - position)) {
        check.take(data + position, std::min(portion, size - position));
    }
    Outcome outcome = {check.fault(), 0};
    while (check.next()) {
        ++outcome.entries;
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Outcome whole = walk(data, size, size + 1);
    const Outcome inBlocks = walk(data, size, 512);
    require(whole.entries == inBlocks.entries && whole.fault.empty() == inBlocks.fault.empty(),
            "the size of the blocks makes no difference: '" + whole.fault + "', '" + inBlocks.fault + "'");
    const Outcome headers = headersOf(data, size, size + 1);
    const Outcome inPortions = headersOf(data, size, 100);
    require(
        headers.entries == inPortions.entries && headers.fault == inPortions.fault,
        "the size of the portions makes no difference: '" + headers.fault + "', '" + inPortions.fault + "'");
    require(headers.fault.find_first_of("\n\x1b") == std::string::npos, "a fault is one printable line");
    require(!whole.fault.empty() || !headers.fault.empty() || whole.entries == headers.entries,
            "where neither finds a fault, both find the same entries");
    // Every entry has a header of its own.
    require(whole.entries <= size / 512, "there are no more entries than headers");
    return 0;
}
