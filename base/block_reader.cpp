#include "base/block_reader.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kavro {
namespace {

constexpr int kOnce = 1;
constexpr int kWithoutLimit = -1;
constexpr auto kBlock = static_cast<long long>(BlockReader::kBlockBytes);

}  // namespace

BlockReader::BlockReader(Read read, long long bytes)
    : readAt(std::move(read)),
      total(bytes),
      last(static_cast<long>((bytes + kBlock - 1) / kBlock)),
      memory(makeAlignedBuffer(kBuffers * kBlockBytes)) {
    for (long number = 0; memory && number < kBuffers; ++number) {
        blocks[number].data = memory.get() + static_cast<std::size_t>(number) * kBlockBytes;
    }
    setName("blockReader");
    hasThread = memory != nullptr && last > 1 && start(kOnce);
}

BlockReader::~BlockReader() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ending = true;
    }
    changed.notify_all();
    UserThreadBase::stop(kWithoutLimit);
}

const BlockReader::Block* BlockReader::next() {
    std::unique_lock<std::mutex> lock(mutex);
    if (taken == last) {
        return nullptr;
    }
    const long number = taken++;
    if (hasThread) {
        changed.notify_all();
        changed.wait(lock, [&] { return filled > number; });
    } else {
        fill(number);
    }
    return &blockOf(number);
}

// A buffer is free again when next() has given the one behind it.
int BlockReader::threadFunc() {
    for (long number = 0; number < last; ++number) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return ending || number <= taken; });
        if (ending) {
            break;
        }
        lock.unlock();
        fill(number);
        lock.lock();
        filled = number + 1;
        changed.notify_all();
    }
    return 0;
}

void BlockReader::fill(long number) {
    Block& block = blockOf(number);
    block.offset = number * kBlock;
    block.size = static_cast<std::size_t>(std::min(total - block.offset, kBlock));
    errno = ENOMEM;
    block.count = memory != nullptr ? readAt(block.data, block.size, block.offset) : -1;
    block.error = block.count < 0 ? errno : 0;
}

}  // namespace kavro
