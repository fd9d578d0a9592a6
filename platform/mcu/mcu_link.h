// The link to the companion microcontroller: everything that the platform libraries ask of it. How the bytes
// travel is an implementation's own business.
//
// Every operation blocks until it is done, reports failure by its result and a text, and never throws except
// for exhausted memory. An object is used by one thread at a time; several objects, also of several
// processes, may stand for the same microcontroller.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/config/platform_config.h"
#include "platform/mcu/raw_file.h"
#include "platform/mcu/srecord.h"

namespace kavro {

// What a microcontroller is programmed with.
struct McuFirmware {
    std::vector<Segment> flashDriver;  // goes to RAM and does the programming
    std::vector<Segment> application;
};

class McuLink {
  public:
    McuLink() = default;
    virtual ~McuLink() = default;
    McuLink(const McuLink&) = delete;
    McuLink& operator=(const McuLink&) = delete;

    // Whether the microcontroller can be reached, with an application or without one.
    [[nodiscard]] virtual bool probe(std::string& error) = 0;

    // Switches the link for programming on or off. Switching it off always succeeds.
    [[nodiscard]] virtual bool setLink(bool on, std::string& error) = 0;

    // The version of the application; nothing, with the reason, when there is no complete one.
    virtual std::optional<int> version(std::string& error) = 0;

    // Replaces the application. Firmware that checkFlashDriver() or checkApplication() refuses changes
    // nothing. From the first change on until all of the new application is in place and read back, the
    // microcontroller has no application: an interrupted programming leaves it without a version, and the
    // next one starts over.
    [[nodiscard]] virtual bool program(const McuFirmware& firmware, const KeepGoing& keepGoing,
                                       std::string& error) = 0;

    // Whether the microcontroller holds exactly this application.
    [[nodiscard]] virtual bool verify(const std::vector<Segment>& application, std::string& error) = 0;

    // Asks the microcontroller to reset the main processor. The reset follows a moment later.
    [[nodiscard]] virtual bool requestReset(std::string& error) = 0;
};

// The link that the device's configuration names; null, with the reason, when it names none. Opening touches
// nothing: whether anyone answers is what probe() tells.
std::unique_ptr<McuLink> openMcuLink(const PlatformConfig& config, std::string& error);

}  // namespace kavro
