#include "twin/emulator/flash_memory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/errno_text.h"
#include "base/file_io.h"
#include "base/mcu_image.h"

namespace kavro::emulator {
namespace {

constexpr mode_t kFileMode = 0644;

Opening fail(const std::string& path, const std::string& what, int errorNumber, std::string& error) {
    error = fileError(path, what, errorNumber);
    return Opening::kFailed;
}

}  // namespace

Opening FlashMemory::format(const std::string& path, const Bytes& content, std::string& error) {
    FlashMemory memory;
    memory.file = path;
    const Opening opening = memory.take(O_RDWR | O_CREAT, error);
    if (opening != Opening::kOpened) {
        return opening;
    }
    memory.content = content;
    if (::ftruncate(memory.descriptor.get(), static_cast<off_t>(content.size())) != 0) {
        return fail(path, "cannot be given its size", errno, error);
    }
    if (!memory.writeThrough(0, content.size(), error) || !memory.flush(error)) {
        return Opening::kFailed;
    }
    return Opening::kOpened;
}

Opening FlashMemory::open(const std::string& path, std::string& error) {
    file = path;
    const Opening opening = take(O_RDWR, error);
    if (opening != Opening::kOpened) {
        return opening;
    }
    return load(error) ? Opening::kOpened : Opening::kFailed;
}

bool FlashMemory::read(const std::string& path, std::string& error) {
    file = path;
    descriptor = FileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.valid()) {
        error = fileError(file, "cannot be opened", errno);
        return false;
    }
    return load(error);
}

bool FlashMemory::load(std::string& error) {
    struct stat status {};
    if (::fstat(descriptor.get(), &status) != 0 || status.st_size != kMcuFlashBytes) {
        error = fileError(file,
                          "is no flash memory of " + std::to_string(kMcuFlashBytes) +
                              " bytes; 'mcu-emulator format' makes one",
                          0);
        return false;
    }
    content.resize(kMcuFlashBytes);
    if (readFullyAt(descriptor.get(), reinterpret_cast<char*>(content.data()), content.size(), 0) !=
        static_cast<ssize_t>(content.size())) {
        error = fileError(file, "cannot be read", errno);
        return false;
    }
    if (!std::equal(kBootLoaderText.begin(), kBootLoaderText.end(), content.begin())) {
        error =
            fileError(file, "holds no boot loader; 'mcu-emulator format' makes a flash memory with one", 0);
        return false;
    }
    return true;
}

Opening FlashMemory::take(int flags, std::string& error) {
    descriptor = FileDescriptor(::open(file.c_str(), flags | O_CLOEXEC, kFileMode));
    if (!descriptor.valid()) {
        return fail(file, "cannot be opened", errno, error);
    }
    if (::flock(descriptor.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            return fail(file, "cannot be locked", errno, error);
        }
        error = fileError(file, "is in use by another emulator", 0);
        return Opening::kInUse;
    }
    return Opening::kOpened;
}

bool FlashMemory::erase(std::uint32_t address, std::uint32_t length, std::string& error) {
    std::fill_n(content.begin() + address, length, kMcuErasedByte);
    return writeThrough(address, length, error);
}

bool FlashMemory::program(std::uint32_t address, const std::uint8_t* data, std::size_t length,
                          std::string& error) {
    const auto first = content.begin() + address;
    const auto last = first + static_cast<long>(length);
    if (std::any_of(first, last, [](std::uint8_t byte) { return byte != kMcuErasedByte; })) {
        error = fileError(file, "what is to be programmed is not erased", 0);
        return false;
    }
    std::copy_n(data, length, first);
    return writeThrough(address, length, error);
}

bool FlashMemory::flush(std::string& error) {
    if (::fsync(descriptor.get()) != 0) {
        error = fileError(file, "cannot be flushed", errno);
        return false;
    }
    return true;
}

bool FlashMemory::writeThrough(std::uint32_t address, std::size_t length, std::string& error) {
    if (!writeFullyAt(descriptor.get(), reinterpret_cast<const char*>(content.data()) + address, length,
                      static_cast<off_t>(address))) {
        error = fileError(file, "cannot be written", errno);
        return false;
    }
    return true;
}

}  // namespace kavro::emulator
