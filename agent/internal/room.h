// Whether the file systems have room for everything that a run writes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "agent/preflight.h"

namespace kavro::agent {

// What is to be installed, as far as it takes room.
struct RoomFor {
    std::filesystem::path package;
    std::uint64_t payloadBytes = 0;
    std::uint64_t entryBytes = 0;  // of the unpacked archive, each file by storageFor
    bool isKept = false;           // it is the kept package, which is copied to recv.tar.xz first
};

// The storage that a file of so many bytes takes, its entry in the directory with it.
std::uint64_t storageFor(std::uint64_t bytes);

// no_room: one for each file system
std::vector<Obstacle> roomObstacles(const RoomFor& what);

}  // namespace kavro::agent
