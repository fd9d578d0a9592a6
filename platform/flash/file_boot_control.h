// The boot state in a JSON file, which is replaced as a whole:
//
//     { "boot_slot": "a", "complete": { "a": true, "b": false }, "pending_slot": "" }
//
// boot_slot starts next, complete tells which slots hold a whole verified image, pending_slot is the slot
// that was written and verified but not yet activated.
//
// Without the file, the running slot starts next, it alone is complete and nothing is pending. A damaged file
// is logged and stands for the same, so that nothing but the running slot can be started before a new one is
// written.
#pragma once

#include <map>

#include "platform/flash/boot_control.h"

namespace kavro {

class FileBootControl : public BootControl {
  public:
    FileBootControl(std::string stateFile, SlotNames slotNames);

    bool beginWriting(const std::string& slot, std::string& error) override;
    bool finishWriting(const std::string& slot, std::string& error) override;
    bool activate(std::string& error) override;

  private:
    struct State {
        std::string bootSlot;
        std::map<std::string, bool> complete;
        std::string pendingSlot;
    };

    // The state as of now: the file is read anew for each operation, since a boot or another process may
    // change it.
    [[nodiscard]] State load() const;
    [[nodiscard]] State fallback() const;
    [[nodiscard]] bool parse(const std::string& text, State& state) const;
    [[nodiscard]] bool save(const State& state, std::string& error) const;

    const std::string path;
    const SlotNames slots;
};

}  // namespace kavro
