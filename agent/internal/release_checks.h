// What the package's release means to the device: for its microcontroller, its slots and its way back.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/preflight.h"
#include "package/version.h"

namespace kavro::agent {

// A package's release beside what the device has.
struct ReleaseOnDevice {
    int microcontroller = 0;                     // the version that the package brings
    std::optional<int> recordedMicrocontroller;  // that the device has or had; negative when it is unfinished
    bool programsMicrocontroller = false;        // a run would
    bool runs = false;                           // it is what runs, in all four versions
    bool flashed = false;                        // and what is flashed
    std::string version;                         // "V01.105.008.003"
};

// Asks the microcontroller.
ReleaseOnDevice releaseOnDevice(const package::Version& version);

// Whether the microcontroller can be programmed: it gives a version, or takes the programming link, which is switched on and
// off for that.
bool microcontrollerAnswers();

// microcontroller
std::optional<Obstacle> microcontrollerObstacle(const ReleaseOnDevice& release);
// slot_unknown, on_trial
std::optional<Obstacle> slotObstacles();
// failed_trial
std::optional<Obstacle> failedTrialObstacle(const std::string& version);
// same_version
std::optional<Obstacle> sameVersionObstacle(const ReleaseOnDevice& release);

}  // namespace kavro::agent
