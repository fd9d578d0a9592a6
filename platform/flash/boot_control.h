// Which of the two slots the device starts next, and what is known about them: everything that the flash
// driver asks of the boot chain. Where that is kept is an implementation's own business.
//
// A change is one atomic save: after a power cut all of it holds, or none. Operations report failure by their
// result and a text that says what to look at; a failed one changed nothing.
#pragma once

#include <array>
#include <string>

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

class BootControl {
  public:
    BootControl() = default;
    virtual ~BootControl() = default;
    BootControl(const BootControl&) = delete;
    BootControl& operator=(const BootControl&) = delete;

    // Before the first byte of a slot is written: the slot, which must not be the running one, counts as
    // incomplete and is no longer pending. If it was the slot to start next, the running one is again.
    [[nodiscard]] virtual bool beginWriting(const std::string& slot, std::string& error) = 0;

    // After the last byte was written and verified: the slot is complete, and pending until the next
    // activation. Which slot starts next stays as it is.
    [[nodiscard]] virtual bool finishWriting(const std::string& slot, std::string& error) = 0;

    // Makes the pending slot the one to start next; without one, the slot that does not start next now.
    // Refused when that slot is not complete. Nothing is pending afterwards.
    [[nodiscard]] virtual bool activate(std::string& error) = 0;
};

}  // namespace kavro
