// A library to preload that knows each call by which a program, or a command that it starts, changes what lasts: the
// file systems and partitions of the device, and its microcontroller.
//
//   KAVRO_FAULT_BOARD=FILE   the file that is shared (board.h), made by whoever starts the program. Without it, and for
//                            paths that are none of the device's, nothing is numbered
//   KAVRO_FAULT_RECORD=FILE  each call is added to it, one line: NUMBER PROGRAM CALL PATH BYTES FROM, tabs in between
//   KAVRO_FAULT_SWALLOW=CALL[,CALL...]  these report success and do nothing
//
// It does not see what a program without the C library's functions does, as a static one, nor what that library does by
// itself, as the flush of a stream at its end: the device's programs write by none of these.
#pragma once

#include "tests/fault/interpose/board.h"

namespace fault {

// What becomes of a call.
struct Verdict {
    int error = 0;             // it fails with this errno
    bool swallowed = false;    // it reports success and does nothing
    std::int64_t atMost = -1;  // a write writes no more than this
};

// Whether a restart of the device keeps what lies there.
[[nodiscard]] bool isDevicePath(const char* path);

// What becomes of a call that changes nothing, or nothing that lasts: the mode that lets calls fail says (fail_mode.cpp).
// Any thread; errno stays.
[[nodiscard]] Verdict failVerdict(const Call& call);

// Numbers the call, records it, lets the watcher have its moment, and says what becomes of it. Of a path that is none of
// the device's only failVerdict is asked. Any thread; errno stays.
[[nodiscard]] Verdict decide(const Call& call);

}  // namespace fault
