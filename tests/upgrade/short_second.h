// In a program with this unit the pauses of whole seconds are shortened, those of the library under test too; they stay
// cancellation points. Shorter ones are as they are.
#pragma once

namespace runtest {

inline constexpr double kShortSecondMs = 250;

}  // namespace runtest
