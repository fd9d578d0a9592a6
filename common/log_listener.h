// Hearing what the device's libraries log, in the process in which they log it: for whoever tells a person why something has
// failed.
//
// libcommon_yr.so implements it. It is declared weak: another board may leave it out, its address is null then, and nothing is
// heard. A program that has a printLog of its own hears nothing either.
#pragma once

#include "common/export.h"

namespace COMMON_YR {

// Is handed a line of printLog: its level and its text. Called on whatever thread logs, on several at once, also on one that
// is being cancelled: it must neither throw nor log, nor be a cancellation point.
using LogListener = void (*)(int level, const char* text);

// From now on hands each line to this listener before it is written; null ends that. A line that is being logged meanwhile may
// still reach the one before. Any thread, no blocking.
KAVRO_EXPORT __attribute__((weak)) void setLogListener(LogListener listener);

}  // namespace COMMON_YR
