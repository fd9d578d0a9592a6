// What is put in order at a start, before anything else looks at the device.
//
// An activation switches the boot environment to the slot that was written, gives the packages their new places and
// removes the marker of what awaits activation:
//
//     boot environment: slot b    ->    current.pkg to temp    ->    rollback.pkg to current.pkg
//                                       ->    temp to rollback.pkg    ->    /config/upgraded away
//
// The first step is what counts. Cut off after it, the device starts the new software, while the rest still tells of the
// old: one more activation would switch back. So the rest is completed.
//
// A boot loader that gives a slot on trial up starts the other one, and tells nobody. The history notes which release that
// was.
//
// The microcontroller has one firmware for both slots: after a fallback it is that of the release that failed, and after a
// programming that was cut off it has none. It is programmed with that of the release that runs, where the package of that
// release is kept.
#pragma once

#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

// Completes what is left of an activation whose switch was made, notes a fallback once, and programs a microcontroller that
// has not the firmware of the running release; nothing when there is none of these, or when the board does not tell of its
// slots. Each step may be cut off, and is completed by the next call. Which package
// belongs to a slot is told by the digests of its components, so this reads packages, but only then.
//
// The caller has the device (agent/lock.h). Returns what was done, whole sentences without a full stop, empty for nothing. An
// error is: other, when it cannot be done; it may be tried again. Blocks for as long as it reads packages.
KAVRO_EXPORT Result<std::vector<std::string>> completeStart();

}  // namespace kavro::agent
