// Completing an activation that was cut off.
//
// An activation switches the boot environment to the slot that was written, gives the packages their new places and
// removes the marker of what awaits activation:
//
//     boot environment: slot b    ->    current.pkg to temp    ->    rollback.pkg to current.pkg
//                                       ->    temp to rollback.pkg    ->    /config/upgraded away
//
// The first step is what counts. Cut off after it, the device starts the new software, while the rest still tells of the
// old: one more activation would switch back. So the rest is completed at the start, before anything looks at it.
#pragma once

#include <string>

namespace upgradectl {

// Completes what is left of an activation whose switch was made; nothing when there is none, or when a package still
// awaits its activation. Which package belongs to the slot that starts next is told by the digests of its
// components, so this reads packages, but only after such a cut.
//
// Returns what was done, for people, empty for nothing. Throws Failure when it cannot be done; it may be tried again.
std::string completeTornActivation();

}  // namespace upgradectl
