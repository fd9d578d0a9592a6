#include "package/internal/component_formats.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/mcu_image.h"
#include "base/srecord.h"
#include "package/components.h"

namespace kavro::package {

namespace {

constexpr std::size_t kHeadBytes = 2048;  // in which all headers lie

// The beginning of a component, and its numbers. Behind the end of a shorter one there are zeros.
class Head {
  public:
    Head(std::string beginning, std::uint64_t componentBytes)
        : bytes(std::move(beginning)), size(componentBytes) {
        bytes.resize(kHeadBytes, '\0');
    }

    std::uint64_t fileBytes() const { return size; }
    std::string text(std::size_t offset, std::size_t length) const { return bytes.substr(offset, length); }
    std::uint64_t littleEndian(std::size_t offset, std::size_t length) const {
        std::uint64_t number = 0;
        for (std::size_t index = length; index-- > 0;) {
            number = number << 8U | static_cast<std::uint8_t>(bytes[offset + index]);
        }
        return number;
    }
    std::uint64_t bigEndian(std::size_t offset, std::size_t length) const {
        std::uint64_t number = 0;
        for (std::size_t index = 0; index < length; ++index) {
            number = number << 8U | static_cast<std::uint8_t>(bytes[offset + index]);
        }
        return number;
    }

  private:
    std::string bytes;
    std::uint64_t size;
};

std::string bytesText(std::uint64_t bytes) {
    return std::to_string(bytes) + " bytes";
}

// The header of an arm64 kernel image:
//
//      0   8   code
//      8   8   text offset
//     16   8   how much memory the kernel takes from its start, what is not in the file included; 0 of an old kernel
//     24   8   flags
//     32   24  zero
//     56   4   "ARM\x64"
//     60   4   zero
std::string kernelFault(const Head& head) {
    constexpr const char* kMagic = "ARM\x64";
    const std::uint64_t memoryBytes = head.littleEndian(16, 8);
    if (head.text(56, 4) != kMagic) {
        return "is no arm64 kernel image: 'ARM\\x64' is not at offset 56";
    }
    if (memoryBytes != 0 && head.fileBytes() > memoryBytes) {
        return "has " + bytesText(head.fileBytes()) + ", but its header asks for a memory of " +
               bytesText(memoryBytes) + " only";
    }
    return {};
}

// A flattened device tree begins with a header of ten big-endian numbers of four bytes, of which the first is the magic and
// the second the size of the whole tree.
std::string deviceTreeFault(const Head& head) {
    constexpr std::uint64_t kMagic = 0xD00DFEED;
    constexpr std::uint64_t kHeaderBytes = 40;
    const std::uint64_t treeBytes = head.bigEndian(4, 4);
    if (head.bigEndian(0, 4) != kMagic) {
        return "is no device tree blob: it does not begin with D0 0D FE ED";
    }
    if (treeBytes < kHeaderBytes) {
        return "states a device tree of " + bytesText(treeBytes) + ", its header alone has " +
               bytesText(kHeaderBytes);
    }
    if (treeBytes > head.fileBytes()) {
        return "states a device tree of " + bytesText(treeBytes) + ", the file has " +
               bytesText(head.fileBytes());
    }
    return {};
}

// The superblock of an ext4 file system lies at 1024. In it, little-endian:
//
//       4   4   number of blocks
//      24   4   block size: 1024 shifted left by so many bits
//      56   2   magic
//      96   4   features; bit 7: there are more than 32 bits of the number of blocks
//     336   4   number of blocks, the next 32 bits
std::string fileSystemFault(const Head& head) {
    constexpr std::size_t kSuperblock = 1024;
    constexpr std::uint64_t kMagic = 0xEF53;
    constexpr std::uint64_t kMostShift = 6;
    constexpr std::uint64_t kManyBlocks = 0x80;
    if (head.littleEndian(kSuperblock + 56, 2) != kMagic) {
        return "is no ext4 file system: 53 EF is not at offset 1080";
    }
    const std::uint64_t shift = head.littleEndian(kSuperblock + 24, 4);
    std::uint64_t blocks = head.littleEndian(kSuperblock + 4, 4);
    if ((head.littleEndian(kSuperblock + 96, 4) & kManyBlocks) != 0) {
        blocks |= head.littleEndian(kSuperblock + 336, 4) << 32U;
    }
    if (shift > kMostShift || blocks == 0) {
        return "has a damaged superblock: " + std::to_string(blocks) + " blocks of 2^" +
               std::to_string(10 + shift) + " bytes";
    }
    const std::uint64_t blockBytes = std::uint64_t{1024} << shift;
    if (blocks > head.fileBytes() / blockBytes) {
        return "states a file system of " + std::to_string(blocks) + " blocks of " + bytesText(blockBytes) +
               ", the file has " + bytesText(head.fileBytes());
    }
    return {};
}

std::string mcuFault(const std::string& what, const std::string& error) {
    return "is no " + what + " of the microcontroller: " + error;
}

std::optional<FormatFault> applicationFault(SRecordReader& records, const Version& version) {
    std::string error;
    const std::optional<SRecordFile> file = records.finish(error);
    if (!file || !checkApplication(file->segments, error)) {
        return FormatFault{mcuFault("application", error),
                           "make it again with objcopy -O srec --change-addresses 0x8000, see docs/mcu.md"};
    }
    const int carried = applicationVersion(file->segments).value_or(-1);
    if (carried != version.mcu) {
        return FormatFault{
            "carries version " + std::to_string(carried) + ", the package " + std::to_string(version.mcu),
            "give --version with the microcontroller's version in third place"};
    }
    return std::nullopt;
}

std::optional<FormatFault> flashDriverFault(SRecordReader& records) {
    std::string error;
    const std::optional<SRecordFile> file = records.finish(error);
    if (!file || !checkFlashDriver(file->segments, error)) {
        return FormatFault{
            mcuFault("flash driver", error),
            "make it again with objcopy -O srec --change-addresses 0x20000000, see docs/mcu.md"};
    }
    return std::nullopt;
}

struct HeadFormat {
    const char* component;
    std::string (*fault)(const Head& head);
    const char* next;
};

// The boot loader is whatever the main processor's ROM takes, and the list of versions is judged elsewhere.
constexpr std::array<HeadFormat, 3> kHeadFormats = {{
    {"cv22_kavro_qz7.dtb", deviceTreeFault, "give the whole file that dtc or the kernel's build made"},
    {"ext4", fileSystemFault,
     "give the whole image that mke2fs made, neither compressed nor in a sparse format"},
    {"Image", kernelFault, "give arch/arm64/boot/Image of the kernel's build, neither Image.gz nor vmlinux"},
}};

std::unique_ptr<SRecordReader> recordsOf(const std::string& component) {
    if (component != kMcuApplication && component != kMcuFlashDriver) {
        return nullptr;
    }
    const AddressRange& memory = component == kMcuApplication ? kMcuApplicationMemory : kMcuDriverMemory;
    return std::make_unique<SRecordReader>(memory, static_cast<std::size_t>(memory.bytes));
}

}  // namespace

FormatCheck::FormatCheck(std::string component) : name(std::move(component)), records(recordsOf(name)) {}

FormatCheck::~FormatCheck() = default;

void FormatCheck::take(const void* data, std::size_t size) {
    bytes += size;
    head.append(static_cast<const char*>(data), std::min(size, kHeadBytes - head.size()));
    if (records != nullptr) {
        records->take(data, size);
    }
}

std::optional<FormatFault> FormatCheck::fault(const Version& version) {
    if (records != nullptr) {
        return name == kMcuApplication ? applicationFault(*records, version) : flashDriverFault(*records);
    }
    for (const HeadFormat& format : kHeadFormats) {
        if (name == format.component) {
            std::string text = format.fault(Head(std::move(head), bytes));
            return text.empty() ? std::nullopt : std::optional<FormatFault>({std::move(text), format.next});
        }
    }
    return std::nullopt;
}

}  // namespace kavro::package
