// The emulated microcontroller: boot loader, application and RAM, with a request in and an answer out. Knows
// nothing of frames, sockets and clocks; the time is handed in. docs/mcu.md is what it has to do.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/mcu/frame.h"
#include "twin/emulator/flash_memory.h"

namespace kavro::emulator {

using Time = std::chrono::steady_clock::time_point;
using Milliseconds = std::chrono::milliseconds;

// Without a request for so long the programming session ends.
inline constexpr Milliseconds kSessionTimeout{5000};
// From the answer to an ECUReset to the reset, and how long the microcontroller then hears nothing.
inline constexpr Milliseconds kResetDelay{10};
inline constexpr Milliseconds kStartTime{50};

// The largest TransferData message that it takes.
inline constexpr std::uint16_t kBlockBytes = 1026;

// What goes wrong while a block is written.
enum class BlockFault {
    kNone,
    kCorrupt,    // one bit becomes another one
    kPowerLoss,  // half of it is written, then nothing works any more
};

// What the microcontroller is connected to. All of it must be set.
struct Surroundings {
    std::function<void()> resetMainProcessor;
    std::function<BlockFault()> nextBlockFault;         // asked once for each block that is written
    std::function<void(const std::string& line)> tell;  // what happens inside, for the log
};

class Microcontroller {
  public:
    // Powers it on, with memory that is open and outlives it.
    Microcontroller(FlashMemory& flashMemory, Surroundings surroundings);

    // Lets what is due happen: the end of a session that nobody uses, a reset.
    void advance(Time now);

    // False while it starts, and for good once it has lost power.
    [[nodiscard]] bool hears(Time now) const { return !lostPower && now >= deafUntil; }
    [[nodiscard]] bool powerLost() const { return lostPower; }
    // How often it has started since it was powered on.
    [[nodiscard]] unsigned starts() const { return startCount; }

    // Carries out a request, of at least one byte, that it hears. Meaningless after a loss of power.
    Bytes answer(const Bytes& request, Time now);

    // The last answer left at this time: the session's timeout counts from here.
    void answered(Time when) { lastHeard = when; }

  private:
    // Carries out a request and appends to the answer; 0, or the negative response code.
    using Handler = std::uint8_t (Microcontroller::*)(const Bytes& request, Bytes& response);
    struct ServiceRow;
    struct RoutineRow;
    static const ServiceRow kServices[];
    static const RoutineRow kRoutines[];

    struct Range {
        std::uint32_t address = 0;
        std::uint32_t length = 0;
        [[nodiscard]] bool within(std::uint32_t start, std::uint32_t bytes) const;
        [[nodiscard]] bool contains(const Range& other) const;
        [[nodiscard]] bool touches(const Range& other) const;
    };
    struct Download {
        Range rest;  // what is still to come
        std::uint8_t expected = 0;
        bool begun = false;  // a block has been written
    };
    struct DriverSection {
        Range where;
        bool good = false;  // checkMemory has found it so
    };
    struct Check {
        Range what;
        std::uint32_t crc = 0;
        bool good = false;
    };

    void start();
    void leaveProgramming();
    std::uint8_t serve(const Bytes& request, Bytes& response);

    std::uint8_t testerPresent(const Bytes& request, Bytes& response);
    std::uint8_t sessionControl(const Bytes& request, Bytes& response);
    std::uint8_t ecuReset(const Bytes& request, Bytes& response);
    std::uint8_t readData(const Bytes& request, Bytes& response);
    std::uint8_t routineControl(const Bytes& request, Bytes& response);
    std::uint8_t programmingLink(const Bytes& request, Bytes& response);
    std::uint8_t resetMainProcessor(const Bytes& request, Bytes& response);
    std::uint8_t checkMemory(const Bytes& request, Bytes& response);
    std::uint8_t eraseMemory(const Bytes& request, Bytes& response);
    std::uint8_t checkDependencies(const Bytes& request, Bytes& response);
    std::uint8_t requestDownload(const Bytes& request, Bytes& response);
    std::uint8_t transferData(const Bytes& request, Bytes& response);
    std::uint8_t transferExit(const Bytes& request, Bytes& response);

    [[nodiscard]] bool driverIsGood() const;
    void noteDriverCheck(const Check& check);
    bool writeBlock(std::uint32_t address, Bytes data);
    bool program(std::uint32_t address, const std::uint8_t* data, std::size_t length);
    bool writeRecord(const Check& check);
    bool succeeded(bool done, const std::string& error) const;

    FlashMemory& flash;
    const Surroundings outside;
    Bytes ram;

    unsigned startCount = 0;
    bool lostPower = false;
    Time deafUntil{};
    std::optional<Time> resetAt;
    Time lastHeard{};

    // Everything from here on is forgotten at a start, everything from `driver` on when programming ends.
    std::optional<int> runningVersion;  // of the application, while it runs
    bool linkOn = false;
    bool programming = false;
    std::vector<DriverSection> driver;
    bool erased = false;
    std::optional<Download> download;
    std::optional<Check> lastCheck;
};

}  // namespace kavro::emulator
