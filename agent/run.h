// Making a run: the installation of a package, or the way back to the kept one, as one operation. It takes the device, looks
// at what is in the way, makes the run on a thread of its own, tells an observer how far it is, and notes in the history
// what came of it.
//
//     begin (status | notice)* end      a run that was made
//     end                               one that was refused, or given up, before it began
//
// Times are seconds since the call was made.
#pragma once

#include <array>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/lock.h"
#include "common/error.h"
#include "common/export.h"
#include "package/check.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

// Of the stages of a run, by UpgradeStage.
using StageSeconds = std::array<double, UpgradeProc::kStageCount>;

// What they take on a device with slow storage and a full package, in seconds. FLASHING_START is that of both
// processors side by side.
inline constexpr StageSeconds kUsualStageSeconds = {1, 10, 30, 5, 1, 1, 180, 8, 1};

// What a run is about.
struct RunBegin {
    std::string command;         // "install" or "rollback"
    std::string package;         // its path, as the caller knows it
    std::string packageVersion;  // as "V01.105.008.003"; empty when it is not known
    std::string currentVersion;  // what the device reports, or empty
    double seconds = 0;          // when it began
};

// How far it is. All of it but the rest only goes forward.
struct RunStatus {
    int stage = 0;       // UpgradeStage
    int state = 0;       // UpgradeState
    int progress = 0;    // percent; 100 only when the run is over
    double seconds = 0;  // that have passed
    // Until the end, estimated. Nothing when there is no telling: no run has begun, or its stage takes longer than
    // it should.
    std::optional<double> remaining;
};

// When a stage began.
struct StageChange {
    int stage = 0;       // UpgradeStage
    double seconds = 0;  // since the call
};

// When a state was published.
struct StateChange {
    int state = 0;       // UpgradeState
    double seconds = 0;  // since the call
};

// A line that the device's libraries have logged.
struct LoggedLine {
    double seconds = 0;  // since the call
    int level = 0;       // 1 error, 2 notice, 3 information
    std::string thread;  // of the library that logged: "aUpgrade_MPU" and "aUpgrade_MCU" flash the processors
    std::string text;    // without its line break
};

// What is known of a run when it is over.
struct RunRecord {
    std::string command;                              // "install" or "rollback"
    std::string package;                              // as it was given
    std::time_t begun = 0;                            // when the call was made
    double seconds = 0;                               // until the run's end
    std::vector<StageChange> stages;                  // in their order, each once
    std::vector<StateChange> states;                  // the same
    std::vector<LoggedLine> log;                      // of this process, as far as it was kept
    std::string packageVersion;                       // "V01.105.008.003", or empty when it could not be read
    std::string versionBefore;                        // what the device reported; empty when no run began
    std::string versionAfter;                         // the same after it
    std::vector<package::ComponentCheck> components;  // empty when the package could not be read
    std::optional<Error>
        error;                 // what it failed with, with the device's own words; nothing when it succeeded
    std::string outcome;       // what was done or what failed, one sentence without a full stop
    std::string nextStep;      // what to do then
    std::string historyFault;  // why the history has no note of it; empty when it has one
};

// Is told of a run, on the thread that makes the call. What it does delays the next look at the run, not the run. It must not
// throw.
class KAVRO_EXPORT RunObserver {
  public:
    virtual ~RunObserver() = default;
    // The run is about to begin.
    virtual void begin(const RunBegin& run) { (void)run; }
    // With each change of stage or state, and some times a second.
    virtual void show(const RunStatus& status) { (void)status; }
    // A sentence for people: what was overridden, that it is to be given up, or that it is too late for that.
    virtual void notice(const std::string& text, double seconds) { (void)text, (void)seconds; }
    // It is over. The device still is this call's.
    virtual void end(const RunRecord& record) { (void)record; }
};

// How a run is to be made.
struct RunOptions {
    std::optional<std::filesystem::path> trustedKey;  // PEM, public: the package must carry it
    bool force = false;                               // an installation goes over what can be overridden
    Patience patience;                                // with another operation that changes the device
    // How often somebody has asked to give it up so far: a number that other threads or signal handlers count up. It is asked
    // some times a second on the caller's thread. A request ends the waiting for the device, and a run that does not flash
    // yet; each later one is answered by a notice. Empty for never.
    std::function<int()> giveUps;
};

// Installs a package; it awaits its activation then. Blocks for the whole run, minutes at most. observer: may be null, must
// outlive the call. One run at a time in a process.
//
// An error is: busy or given_up, when the device was not to be had; usage, for a trusted key that cannot be read; refused,
// for what preflight() tells, and for a package that the run itself finds damaged; given_up, in time; flash_failed;
// other: the machine or the device. `details` has the device's own words.
KAVRO_EXPORT Result<RunRecord> install(const std::filesystem::path& package, const RunOptions& options = {},
                                       RunObserver* observer = nullptr);

// Goes back to the kept package and activates it; it runs after the next restart. By a run, or at once where the other slot
// holds it and the microcontroller fits. The rest is as with install().
KAVRO_EXPORT Result<RunRecord> rollback(const RunOptions& options = {}, RunObserver* observer = nullptr);

// What nobody else should write to while a run may be made.
struct RunPlaces {
    std::vector<std::filesystem::path> directories;  // with all that is in them
    std::vector<std::filesystem::path> files;        // besides; the device's log is one where it is known
};

// Where runs, and what the device knows of itself, have their files. Reads the device's configuration.
KAVRO_EXPORT RunPlaces placesOfRuns();

}  // namespace kavro::agent
