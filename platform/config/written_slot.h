// The record of the slot that was written and verified and awaits its activation: a JSON file that outlives
// restarts and is replaced as a whole.
//
//     {
//       "slot": "b",
//       "kernel": { "bytes": 8123456, "sha256": "64 hexadecimal digits, lower case" },
//       "dtb":    { ... },
//       "rootfs": { ... }
//     }
//
// Functions report failure by their result and a text that names the file. They need a CancelHold around them.
#pragma once

#include <optional>
#include <string>

#include "platform/config/slot_part.h"

namespace kavro {

// What the first bytes of a partition are.
struct PartContent {
    long long bytes = 0;
    std::string sha256;  // 64 hexadecimal digits, lower case
};

using SlotContent = PerSlotPart<PartContent>;

inline bool operator==(const PartContent& left, const PartContent& right) {
    return left.bytes == right.bytes && left.sha256 == right.sha256;
}

// Whether a content can be one: at least one byte, and a digest of the right form.
[[nodiscard]] bool isPossible(const PartContent& content);

struct WrittenSlot {
    std::string slot;
    SlotContent content;
};

// Leaves `record` empty when there is no file. False when there is one that holds no record.
[[nodiscard]] bool readWrittenSlot(const std::string& path, std::optional<WrittenSlot>& record,
                                   std::string& error);

// The record is on storage when this returns true.
[[nodiscard]] bool saveWrittenSlot(const std::string& path, const WrittenSlot& record, std::string& error);

// True also when there is none.
[[nodiscard]] bool removeWrittenSlot(const std::string& path, std::string& error);

}  // namespace kavro
