// The parts of a slot, under the names that platform.json, the boot environment and the record of the written
// slot give them.
#pragma once

#include <array>

namespace kavro {

inline constexpr std::array<const char*, 3> kSlotParts = {{"kernel", "dtb", "rootfs"}};

// One for each of kSlotParts, in that order.
template <typename T>
using PerSlotPart = std::array<T, kSlotParts.size()>;

}  // namespace kavro
