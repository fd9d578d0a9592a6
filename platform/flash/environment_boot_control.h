// The boot control of a device whose boot loader is U-Boot: variables of its environment.
//
//     boot_slot            the slot that starts next
//     upgrade_available    1: that slot is on trial, and U-Boot counts its starts
//     bootcount            how often it was started on trial
//     bootlimit            how often it may be, before U-Boot takes the other slot
//     slot_NAME_kernel     "<bytes> <sha256>": what the first bytes of the slot's partition must be. U-Boot
//     slot_NAME_dtb        starts no slot that holds anything else.
//     slot_NAME_rootfs
//
// The environment exists twice. A save replaces the older copy, so that the other one holds at any moment; a
// damaged copy is as good as an old one. Whatever else the environment holds is kept.
#pragma once

#include "platform/flash/boot_control.h"

namespace kavro {

class EnvironmentBootControl : public BootControl {
  public:
    // configFile tells where the two copies are, in the form of fw_env.config.
    EnvironmentBootControl(std::string configFile, SlotNames slotNames);

    bool load(BootState& state, std::string& error) const override;
    bool activate(const std::string& slot, const SlotContent& content, std::string& error) override;
    bool keepRunning(std::string& error) override;
    bool places(std::vector<std::string>& paths, std::string& error) const override;

  private:
    const std::string config;
    const SlotNames slots;
};

}  // namespace kavro
