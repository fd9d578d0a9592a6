// What the platform libraries ask of the companion microcontroller. docs/mcu.md shows the messages.
//
// Every operation blocks until it is done, and a microcontroller that does not answer ends it within seconds.
// Failure is a result and a text that begins with the link's address; nothing throws except for exhausted memory.
// An object is used by one thread at a time, and while it exists no other program can open the link. Whoever uses
// it on a thread that can be cancelled holds cancellation off.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/raw_file.h"
#include "base/srecord.h"
#include "platform/config/platform_config.h"
#include "platform/mcu/uds_client.h"

namespace kavro {

// What a microcontroller is programmed with.
struct McuFirmware {
    std::vector<Segment> flashDriver;  // goes to RAM and does the programming
    std::vector<Segment> application;
};

class McuClient {
  public:
    // The address is only for the texts of errors. keepGoing is asked before each request; false gives the
    // operation up.
    McuClient(const std::string& linkAddress, std::unique_ptr<ByteLink> openedLink,
              const KeepGoing& keepGoing = {});

    using Count = std::function<void(std::size_t bytes)>;

    // Whether the microcontroller answers, with an application or without one.
    [[nodiscard]] bool probe(std::string& error);

    // Switches the link for programming on or off. A microcontroller that starts anew has it off.
    [[nodiscard]] bool setLink(bool on, std::string& error);

    // The version of the application that runs; nothing, with the reason, when there is none.
    std::optional<int> version(std::string& error);

    // Replaces the application; the programming link must be on. Firmware that checkFlashDriver() or
    // checkApplication() refuses changes nothing. From the erasing on until makeRun() the microcontroller has no
    // application: an interrupted programming leaves it without a version, and the next one starts over. After
    // a failure it is started anew, so that an application that was not yet erased runs again.
    // True: the microcontroller has found that its flash holds the new application. count: called with the bytes of
    // the firmware that were sent with each block.
    [[nodiscard]] bool program(const McuFirmware& firmware, std::string& error, const Count& count = {});

    // Follows program() within 5 s, on the same or another object: makes the new application the one to run,
    // starts it and compares the version that it reports.
    [[nodiscard]] bool makeRun(int expectedVersion, std::string& error);

    // Asks the microcontroller to reset the main processor. The reset follows a moment later.
    [[nodiscard]] bool requestReset(std::string& error);

  private:
    std::optional<Bytes> ask(const char* step, const Bytes& request, std::size_t answerBytes,
                             std::string& error);
    bool fail(const char* step, const std::string& reason, std::string& error) const;

    bool enterProgramming(std::string& error);
    bool programInSession(const McuFirmware& firmware, std::string& error);
    bool download(const char* step, const std::vector<Segment>& segments, std::string& error);
    bool downloadSegment(const char* step, const Segment& segment, std::string& error);
    bool checkMemory(const char* step, const Segment& memory, std::string& error);
    bool eraseApplication(std::string& error);
    bool compareVersion(int expectedVersion, std::string& error);

    const std::string address;
    UdsClient client;
    Count countSent;
};

// Whether the device's configuration names a link, in one of the forms that exist. The error names the file and
// the member. Touches nothing but that: whether anyone answers is what probe() tells.
[[nodiscard]] bool checkMcuConfig(const PlatformConfig& config, std::string& error);

// Opens the link that the device's configuration names. Null, with the reason, when that is not possible.
std::unique_ptr<McuClient> connectMcu(const PlatformConfig& config, std::string& error,
                                      const KeepGoing& keepGoing = {});

}  // namespace kavro
