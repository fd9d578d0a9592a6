// Which of the two slots the device starts next, and what the slots must hold: everything that the flash driver
// tells the boot loader and learns from it. Where that is kept is an implementation's own business.
//
// A slot that was activated is on trial: the boot loader counts its starts, and starts the other slot again when
// nobody has confirmed it within the limit.
//
// A change is one atomic save: after a power cut or a failure all of it holds, or none. Operations report failure by their
// result and a text that says what to look at. They need a CancelHold around them.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "platform/config/written_slot.h"

namespace kavro {

inline constexpr std::size_t kSlotCount = 2;

struct SlotNames {
    std::array<std::string, kSlotCount> names;
    std::string running;  // the one that was started

    // The slot that is not this one.
    [[nodiscard]] const std::string& other(const std::string& slot) const {
        return slot == names[0] ? names[1] : names[0];
    }
};

struct BootState {
    std::string bootSlot;                        // the slot that starts next
    bool onTrial = false;                        // that slot was activated and not yet confirmed
    std::string starts;                          // how often it was started on trial; empty when unknown
    std::string startLimit;                      // and how often it may be; empty when unknown
    std::map<std::string, SlotContent> content;  // by slot, where all of it is known
};

// Whether this slot starts next with this content already, so that the record of it awaits nothing.
[[nodiscard]] inline bool isActivated(const WrittenSlot& written, const BootState& state) {
    const auto known = state.content.find(written.slot);
    return state.bootSlot == written.slot && known != state.content.end() && known->second == written.content;
}

class BootControl {
  public:
    BootControl() = default;
    virtual ~BootControl() = default;
    BootControl(const BootControl&) = delete;
    BootControl& operator=(const BootControl&) = delete;

    // The state as of now. False when it cannot be read, or when none of the device's slots starts next.
    [[nodiscard]] virtual bool load(BootState& state, std::string& error) const = 0;

    // Makes a slot with this content the one to start next, on trial unless it is the running one.
    [[nodiscard]] virtual bool activate(const std::string& slot, const SlotContent& content,
                                        std::string& error) = 0;

    // Makes the running slot, whatever it holds, the one to start next, and not on trial. This both confirms a
    // slot that runs on trial and takes back the activation of the other one.
    [[nodiscard]] virtual bool keepRunning(std::string& error) = 0;

    // The files or devices that the state itself is kept in. False when they are not known.
    [[nodiscard]] virtual bool places(std::vector<std::string>& paths, std::string& error) const = 0;
};

}  // namespace kavro
