// Memory for transfers past the cache: file systems and disks take it only at addresses, offsets and sizes that are
// multiples of their blocks.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace kavro {

// No block of a file system or disk in use is larger.
constexpr std::size_t kDirectAlignment = 4096;

struct FreeMemory {
    void operator()(char* memory) const { std::free(memory); }
};
using AlignedBuffer = std::unique_ptr<char, FreeMemory>;

// size: a multiple of kDirectAlignment. Null when there is no memory to be had.
inline AlignedBuffer makeAlignedBuffer(std::size_t size) {
    return AlignedBuffer(static_cast<char*>(std::aligned_alloc(kDirectAlignment, size)));
}

}  // namespace kavro
