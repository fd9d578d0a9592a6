// The emulated microcontroller's flash memory: a file as large as the memory, with the rules of the hardware.
//
// Used by one thread. Operations that can fail leave a text with the file's name in error. What was changed is
// in the file at once and on storage after flush().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/file_descriptor.h"
#include "platform/mcu/frame.h"

namespace kavro::emulator {

// What the boot loader's area is filled with, again and again.
inline constexpr std::string_view kBootLoaderText = "KAVRO BOOT LOAD\n";

enum class Opening {
    kOpened,
    kInUse,  // another emulator has it
    kFailed,
};

class FlashMemory {
  public:
    // Writes the content of a whole memory, kMcuFlashBytes, to a file that is made when it is missing.
    static Opening format(const std::string& path, const Bytes& content, std::string& error);

    // Opens a file that format() made and keeps every other emulator from it.
    Opening open(const std::string& path, std::string& error);

    // Opens it only to be looked at, whoever uses it.
    [[nodiscard]] bool read(const std::string& path, std::string& error);

    // The whole memory, from address 0 on.
    [[nodiscard]] const Bytes& bytes() const { return content; }

    // Both numbers are multiples of kMcuSectorBytes and within the memory.
    [[nodiscard]] bool erase(std::uint32_t address, std::uint32_t length, std::string& error);

    // Programs bytes, all of which must be erased: else nothing is changed. The range is within the memory.
    [[nodiscard]] bool program(std::uint32_t address, const std::uint8_t* data, std::size_t length,
                               std::string& error);

    // Waits until everything is on storage.
    [[nodiscard]] bool flush(std::string& error);

  private:
    Opening take(int flags, std::string& error);
    bool load(std::string& error);
    bool writeThrough(std::uint32_t address, std::size_t length, std::string& error);

    std::string file;
    FileDescriptor descriptor;  // holds the lock, too
    Bytes content;
};

}  // namespace kavro::emulator
