// What the fuzz targets share. A target is a file NAME_fuzz.cpp that defines LLVMFuzzerTestOneInput: it takes any bytes,
// hands them to the code under test and requires what must hold of the outcome.
//
// libFuzzer makes the inputs (`./dev fuzz`); the ordinary tests feed the targets with the collected ones only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Ends the program, with a text that says what does not hold, unless the condition does.
void require(bool condition, const std::string& what);

// Takes an input apart from its front. What an input does not hold any more comes as zero or empty.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : left(reinterpret_cast<const char*>(data), size) {}

    [[nodiscard]] bool empty() const { return left.empty(); }
    std::uint8_t byte();
    std::string bytes(std::size_t count);
    // Up to the next line break, which is taken, too.
    std::string line();
    std::string rest() { return bytes(left.size()); }

  private:
    std::string_view left;
};

// A file that lies in memory and has no name in any directory.
class MemoryFile {
  public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    const std::string& path() const { return name; }
    // It becomes exactly this long, and holds the content at the offset and zeros elsewhere.
    void fill(const std::string& content, std::size_t offset, std::size_t fileBytes);
    void fill(const std::string& content) { fill(content, 0, content.size()); }

  private:
    int descriptor;
    std::string name;
};

// A directory in memory, for code that replaces files by others; emptied and removed at the program's end.
class MemoryDirectory {
  public:
    MemoryDirectory();
    ~MemoryDirectory();
    MemoryDirectory(const MemoryDirectory&) = delete;
    MemoryDirectory& operator=(const MemoryDirectory&) = delete;

    std::string operator/(const std::string& file) const { return root + "/" + file; }

  private:
    std::string root;
};

void writeText(const std::string& path, const std::string& text);
std::string readText(const std::string& path);

// Whether it is UTF-8 as the standard has it: no surrogates, nothing overlong, nothing above U+10FFFF.
bool isUtf8(const std::string& text);

}  // namespace fuzz
