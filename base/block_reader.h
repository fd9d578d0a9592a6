// Reads a file block by block, on a thread of its own: storage reads the next block while the processor is at work on the
// last one.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>

#include "base/aligned_buffer.h"
#include "common/user_thread.h"

namespace kavro {

class BlockReader : private COMMON_YR::UserThreadBase {
  public:
    static constexpr std::size_t kBlockBytes = std::size_t{1} << 20;

    struct Block {
        char* data = nullptr;  // aligned as direct input and output needs it
        std::size_t size = 0;
        long count = 0;  // of bytes that were read: less than size where the file ends, negative on failure
        int error = 0;   // errno of a failure
        long long offset = 0;
    };
    // Reads up to `size` bytes at an offset: returns how many, fewer only where the file ends, negative with errno set.
    using Read = std::function<long(char* buffer, std::size_t size, long long offset)>;

    // Reads a file's first `bytes` bytes; the file must outlive the reader. Where there is no thread or no memory to be
    // had, the reading is done by next(), or fails.
    BlockReader(Read read, long long bytes);
    ~BlockReader();

    // The next block, valid until the next call; null behind the last one.
    const Block* next();

  private:
    static constexpr long kBuffers = 2;

    int threadFunc() override;
    void fill(long number);
    Block& blockOf(long number) { return blocks[number % kBuffers]; }

    const Read readAt;
    const long long total;
    const long last;  // one more than the number of the last block
    AlignedBuffer memory;
    Block blocks[kBuffers];
    bool hasThread = false;

    std::mutex mutex;
    std::condition_variable changed;
    long taken = 0;   // blocks that next() has given
    long filled = 0;  // blocks that were read
    bool ending = false;
};

}  // namespace kavro
