// An emulated microcontroller whose flash memory is a file: the whole of it, boot loader included, erased
// bytes 0xFF. What it is asked besides programming goes into files beside that one.
#pragma once

#include "platform/mcu/mcu_link.h"

namespace kavro {

// The name of the file, in the directory of the flash file, whose presence says that a reset of the main
// processor was asked for. Whoever carries the reset out removes it.
inline constexpr const char* kMcuResetRequestName = "reset_request";

class FileMcuLink : public McuLink {
  public:
    explicit FileMcuLink(std::string flashFile);

    bool probe(std::string& error) override;
    bool setLink(bool on, std::string& error) override;
    std::optional<int> version(std::string& error) override;
    bool program(const McuFirmware& firmware, const KeepGoing& keepGoing, std::string& error) override;
    bool verify(const std::vector<Segment>& application, std::string& error) override;
    bool requestReset(std::string& error) override;

  private:
    const std::string flashPath;
};

}  // namespace kavro
