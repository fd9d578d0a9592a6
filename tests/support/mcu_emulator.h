// A microcontroller for tests: the twin's mcu-emulator as a child process. In a twin the default paths are those
// that the device's platform.json names.
//
//     testsupport::McuEmulator mcu;                      // of version 7, formatted when there is none
//     ASSERT_TRUE(mcu.start({"lose@36=2"}));             // powered on, with faults
//     ...
//     mcu.stop();                                        // powered off; the destructor does it, too
//
// A flash memory that no emulator has made, as the one that an older device left behind, counts as none.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/program.h"

namespace testsupport {

class McuEmulator {
  public:
    static constexpr int kDefaultVersion = 7;
    static constexpr int kNoApplication = -1;
    static constexpr int kPowerLostCode = 3;
    static constexpr int kNotRun = -1;

    explicit McuEmulator(std::string flashFile = "/dev/kavro-mcu/flash.bin",
                         std::string socketPath = "/dev/kavro-mcu/link");
    // Ends it, without a check of how.
    ~McuEmulator();
    McuEmulator(const McuEmulator&) = delete;
    McuEmulator& operator=(const McuEmulator&) = delete;

    // Makes the flash memory anew, with a small application of that version or with none. False, with a failure
    // of the test, when that does not work.
    bool format(int version = kDefaultVersion);

    // Powers it on, with faults as `mcu-emulator help` describes them, and waits until programs can connect.
    // False, with a failure of the test, when it does not come up.
    bool start(const std::vector<std::string>& faults = {});

    // Powers it off and waits for its end. Returns its exit code, kNotRun when it did not run.
    int stop();

    // Waits until it has ended by itself, at most 30 s. Returns its exit code, kNotRun when it runs on or has not run.
    int waitForEnd();

    // Whether a power-loss fault struck and has ended it.
    bool powerLost();

    // The version of the application that would run at the next start; nothing when there is none.
    [[nodiscard]] std::optional<int> version() const;

    // What it was asked and answered since the last start.
    [[nodiscard]] std::string log() const;

    const std::string& flashFile() const { return flash; }
    const std::string& socketPath() const { return socket; }
    // 0 unless it was started.
    [[nodiscard]] int pid() const { return program ? program->pid() : 0; }

  private:
    bool accepts() const;

    const std::string flash;
    const std::string socket;
    std::unique_ptr<Program> program;  // from a start to the next stop
};

}  // namespace testsupport
