// An installed package that is given up.
#pragma once

namespace kavro::agent {

// Whether one was being dropped when it was cut off: its package went first.
bool isDiscardTorn();

// Drops what awaits its activation, or what is left of it: the package, the board's record of the written slot, the marker.
// Each step is on storage before the next one. Throws Failure (other).
void dropInstalled();

}  // namespace kavro::agent
