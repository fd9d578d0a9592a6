// What a board tells of its two slots, for whoever decides what to do with the device. The upgrade manager itself does
// without.
//
// libflash_drivers.so implements these functions. They are declared weak: an engineer with another board may leave them
// out, their addresses are null then, and what they would tell is unknown. They block for as long as it takes to read
// or write the boot loader's state; boardVerifySlot reads a whole slot. Any thread; not while a run flashes, unless it is said
// below. Nothing throws.
#pragma once

#include <map>
#include <string>

#include "common/export.h"

namespace COMMON_YR {

// What the first bytes of a slot's partition are.
struct BoardContent {
    long long bytes = 0;  // how many these are
    std::string sha256;   // 64 hexadecimal digits, lower case
};

// The components of a slot, by their names in a package: "Image", "cv22_kavro_qz7.dtb", "ext4".
using BoardSlotContent = std::map<std::string, BoardContent>;

// In the place of a number that is not known.
inline constexpr int kBoardUnknown = -1;

// What the boot loader does next, and what the slots hold.
struct BoardState {
    std::string runningSlot;              // the one that was started
    std::string nextSlot;                 // the one that starts next
    bool onTrial = false;                 // nextSlot was activated and is not confirmed
    int trialStarts = kBoardUnknown;      // how often it was started on trial
    int trialLimit = kBoardUnknown;       // how often it may be, before the boot loader takes the other slot
    bool repairsMicrocontroller = false;  // at a start, when it has another firmware than the running release
    std::string writtenSlot;              // was written and awaits its activation; empty for none
    std::map<std::string, BoardSlotContent> slots;  // by slot; what is not known of one is left out
};

// The state as of now. Returns 0; negative, with a text that names the file, when it cannot be read.
KAVRO_EXPORT __attribute__((weak)) int boardReadState(BoardState& state, std::string& error);

// Whether storage holds what readState tells of this slot. Returns 0 when it does; negative, with a text that says what
// differs, when it does not or cannot be read, or when nothing is known of the slot.
KAVRO_EXPORT __attribute__((weak)) int boardVerifySlot(const std::string& slot, std::string& error);

// Forgets that a slot was written and awaits its activation; what the slot holds stays. Returns 0, also when none awaits it,
// and the record is gone from storage then; negative, with a text, when that cannot be done.
KAVRO_EXPORT __attribute__((weak)) int boardDropWrittenSlot(std::string& error);

// The bytes of an operation.
struct BoardBytes {
    long long done = 0;   // so many of them, at most all
    long long total = 0;  // 0: not known
};

// The writing of both processors: of the one that goes on, or else of the last.
struct BoardProgress {
    BoardBytes mpu;  // written and compared
    BoardBytes mcu;  // sent to the microcontroller
};

// How far it is, also while a run flashes. Costs no more than reading some numbers.
KAVRO_EXPORT __attribute__((weak)) void boardReadProgress(BoardProgress& progress);

// The file into which the device logs; empty when it logs into none.
KAVRO_EXPORT __attribute__((weak)) std::string boardLogFile();

}  // namespace COMMON_YR
