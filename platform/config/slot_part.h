// The parts of a slot, under the names that platform.json, the boot environment and the record of the written
// slot give them.
#pragma once

#include <array>

namespace kavro {

inline constexpr std::array<const char*, 3> kSlotParts = {{"kernel", "dtb", "rootfs"}};

// The components of a package that they are written from, in the same order.
inline constexpr std::array<const char*, kSlotParts.size()> kSlotComponents = {
    {"Image", "cv22_kavro_qz7.dtb", "ext4"}};

// One for each of kSlotParts, in that order.
template <typename T>
using PerSlotPart = std::array<T, kSlotParts.size()>;

}  // namespace kavro
