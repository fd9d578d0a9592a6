#include "tests/fuzz/fuzz.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/utility.h"

// In the place of the device's log, which would write a line for nearly every input. The line is made all the same, so
// that a wrong format shows.
void printLog(int /*level*/, const char* format, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
}

namespace fuzz {

void require(bool condition, const std::string& what) {
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what.c_str());
        std::abort();
    }
}

std::uint8_t Input::byte() {
    const std::string one = bytes(1);
    return one.empty() ? 0 : static_cast<std::uint8_t>(one[0]);
}

std::string Input::bytes(std::size_t count) {
    const std::string taken(left.substr(0, count));
    left.remove_prefix(taken.size());
    return taken;
}

std::string Input::line() {
    std::string taken = bytes(left.find('\n'));
    (void)bytes(1);
    return taken;
}

MemoryFile::MemoryFile()
    : descriptor(memfd_create("fuzz", MFD_CLOEXEC)), name("/proc/self/fd/" + std::to_string(descriptor)) {
    require(descriptor >= 0, "a file in memory can be made");
}

MemoryFile::~MemoryFile() {
    (void)close(descriptor);
}

void MemoryFile::fill(const std::string& content, std::size_t offset, std::size_t fileBytes) {
    const bool filled = ftruncate(descriptor, 0) == 0 &&
                        pwrite(descriptor, content.data(), content.size(), static_cast<off_t>(offset)) ==
                            static_cast<ssize_t>(content.size()) &&
                        ftruncate(descriptor, static_cast<off_t>(fileBytes)) == 0;
    require(filled, "a file in memory can be written");
}

MemoryDirectory::MemoryDirectory() : root("/dev/shm/kavro-fuzz-XXXXXX") {
    require(mkdtemp(root.data()) != nullptr, "a directory in memory can be made");
}

MemoryDirectory::~MemoryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    require(file.good(), path + " can be written");
}

std::string readText(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

namespace {

// How many bytes the character has that begins with this byte; 0 for none.
std::size_t utf8Length(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

}  // namespace

bool isUtf8(const std::string& text) {
    constexpr unsigned kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    for (std::size_t index = 0; index < text.size();) {
        const auto first = static_cast<unsigned char>(text[index]);
        const std::size_t length = utf8Length(first);
        if (length == 0 || length > text.size() - index) {
            return false;
        }
        unsigned code = length == 1 ? first : first & (0x7FU >> length);
        for (std::size_t next = 1; next < length; ++next) {
            const auto byte = static_cast<unsigned char>(text[index + next]);
            if ((byte & 0xC0U) != 0x80) {
                return false;
            }
            code = code << 6 | (byte & 0x3FU);
        }
        if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        index += length;
    }
    return true;
}

}  // namespace fuzz
