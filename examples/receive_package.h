// Receives an upgrade package into a file: part of the example camera_app.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "upgrade/upgrade_api.h"

// Fills the block from a file, a FIFO or a socket. Returns the bytes that came until the end, an error or the stop.
inline size_t readBlock(int source, std::vector<char>& block, const std::atomic<bool>& stop) {
    size_t filled = 0;
    while (filled < block.size() && !stop) {
        pollfd input = {source, POLLIN, 0};
        if (poll(&input, 1, 200) <= 0) {
            continue;  // to look at stop
        }
        const ssize_t count = read(source, &block[filled], block.size() - filled);
        if (count <= 0) {
            break;
        }
        filled += static_cast<size_t>(count);
    }
    return filled;
}

// True when the source gave one package, not a byte less or more, and it is on storage. Blocks of zeros become holes:
// a package is padded to its size, and /firmware has no room for four full ones.
inline bool receiveBlocks(int source, int destination, const std::atomic<bool>& stop) {
    long blockBytes = 0;
    long blockCount = 0;
    UPGRADE_get_blk_info(&blockBytes, &blockCount);
    std::vector<char> block(static_cast<size_t>(blockBytes));
    for (long i = 0; i < blockCount; ++i) {
        if (readBlock(source, block, stop) != block.size()) {
            return false;
        }
        const bool hole = std::all_of(block.begin(), block.end(), [](char byte) { return byte == 0; });
        if (!hole && pwrite(destination, block.data(), block.size(), i * blockBytes) != blockBytes) {
            return false;
        }
    }
    return readBlock(source, block, stop) == 0 && !stop &&
           ftruncate(destination, blockBytes * blockCount) == 0 && fsync(destination) == 0;
}

inline std::string partOf(const std::string& package) {
    return package + ".part";
}

// What a power cut has left. Call it at a start: it takes room.
inline void removeHalfReceived(const std::string& package) {
    unlink(partOf(package).c_str());
}

// Receives a package from a file or a FIFO: afterwards it is there whole, true, or not at all. The package before goes
// first, for there is room for one. Blocks until the source ends; stop, set by another thread, makes it end sooner.
inline bool receivePackage(const std::string& from, const std::string& package,
                           const std::atomic<bool>& stop) {
    const std::string part = partOf(package);
    unlink(package.c_str());
    const int source = open(from.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int destination = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const bool whole = source >= 0 && destination >= 0 && receiveBlocks(source, destination, stop);
    close(source);
    close(destination);
    if (whole && rename(part.c_str(), package.c_str()) == 0) {
        return true;
    }
    unlink(part.c_str());
    return false;
}
