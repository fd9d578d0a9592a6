#include "package/internal/component_formats.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/file_io.h"
#include "base/mcu_image.h"

namespace kavro::package {

namespace {

namespace fs = std::filesystem;

// The beginning of a file, and its numbers. Behind the end of a shorter file there are zeros.
class FileHead {
  public:
    explicit FileHead(const fs::path& path) : size(fs::file_size(path)) {
        (void)readBeginning(path.string(), kBytes, bytes);
        bytes.resize(kBytes, '\0');
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
    static constexpr std::size_t kBytes = 2048;
    std::uint64_t size;
    std::string bytes;
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
std::string kernelFault(const Component& component, const Version& /*version*/) {
    constexpr const char* kMagic = "ARM\x64";
    const FileHead head(component.path);
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
std::string deviceTreeFault(const Component& component, const Version& /*version*/) {
    constexpr std::uint64_t kMagic = 0xD00DFEED;
    constexpr std::uint64_t kHeaderBytes = 40;
    const FileHead head(component.path);
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
std::string fileSystemFault(const Component& component, const Version& /*version*/) {
    constexpr std::size_t kSuperblock = 1024;
    constexpr std::uint64_t kMagic = 0xEF53;
    constexpr std::uint64_t kMostShift = 6;
    constexpr std::uint64_t kManyBlocks = 0x80;
    const FileHead head(component.path);
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

// Without the file's name in front, which stands in the fault already.
std::string mcuFault(const Component& component, const std::string& what, std::string error) {
    const std::string prefix = component.path.string() + ": ";
    if (error.rfind(prefix, 0) == 0) {
        error.erase(0, prefix.size());
    }
    return "is no " + what + " of the microcontroller: " + error;
}

std::string mcuApplicationFault(const Component& component, const Version& /*version*/) {
    std::string error;
    return readApplication(component.path.string(), error) ? "" : mcuFault(component, "application", error);
}

// Of an application that is in order otherwise.
std::string mcuVersionFault(const Component& component, const Version& version) {
    std::string ignored;
    const auto segments = readApplication(component.path.string(), ignored);
    const int carried = segments ? applicationVersion(*segments).value_or(-1) : -1;
    return carried == version.mcu ? ""
                                  : "carries version " + std::to_string(carried) + ", the package " +
                                        std::to_string(version.mcu);
}

std::string mcuFlashDriverFault(const Component& component, const Version& /*version*/) {
    std::string error;
    return readFlashDriver(component.path.string(), error) ? "" : mcuFault(component, "flash driver", error);
}

struct Format {
    const char* component;
    std::string (*fault)(const Component& component, const Version& version);
    const char* next;
};

// The first fault of a component counts. The boot loader is whatever the main processor's ROM takes, and the version list is text for people.
constexpr std::array<Format, 6> kFormats = {{
    {"cv22_kavro_qz7.dtb", deviceTreeFault, "give the whole file that dtc or the kernel's build made"},
    {"ext4", fileSystemFault,
     "give the whole image that mke2fs made, neither compressed nor in a sparse format"},
    {"Image", kernelFault, "give arch/arm64/boot/Image of the kernel's build, neither Image.gz nor vmlinux"},
    {kMcuApplication, mcuApplicationFault,
     "make it again with objcopy -O srec --change-addresses 0x8000, see docs/mcu.md"},
    {kMcuApplication, mcuVersionFault, "give --version with the microcontroller's version in third place"},
    {kMcuFlashDriver, mcuFlashDriverFault,
     "make it again with objcopy -O srec --change-addresses 0x20000000, see docs/mcu.md"},
}};

}  // namespace

std::optional<ComponentFault> formatFault(const Component& component, const Version& version) {
    for (const Format& format : kFormats) {
        if (component.name != format.component) {
            continue;
        }
        const std::string fault = format.fault(component, version);
        if (!fault.empty()) {
            return ComponentFault{"the component '" + component.path.string() + "' " + fault,
                                  std::string(format.next) + "; --force packs it as it is", true};
        }
    }
    return std::nullopt;
}

}  // namespace kavro::package
