// What is known of a run when it is over.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "package/check.h"

namespace upgradectl {

// Times are seconds since the command began.
struct StageChange {
    int stage = 0;  // UpgradeStage
    double seconds = 0;
};

struct StateChange {
    int state = 0;  // UpgradeState
    double seconds = 0;
};

struct LoggedLine {
    double seconds = 0;
    int level = 0;       // 1 error, 2 notice, 3 information
    std::string thread;  // of the library that logged: "aUpgrade_MPU" and "aUpgrade_MCU" flash the processors
    std::string text;    // without its line break
};

struct RunRecord {
    std::string command;  // "install" or "rollback"
    std::string package;  // as it was given
    std::time_t begun = 0;
    double seconds = 0;               // until the run's end
    std::vector<StageChange> stages;  // in their order, each once
    std::vector<StateChange> states;
    std::vector<LoggedLine> log;
    std::string packageVersion;  // "V01.105.008.003", or empty when it could not be read
    std::string versionBefore;   // what the device reported, or empty
    std::string versionAfter;
    std::vector<kavro::package::ComponentCheck> components;  // empty when the package could not be read
    int exitCode = 0;                                        // of the command
    std::string outcome;                                     // one sentence without a full stop
    std::string nextStep;
};

}  // namespace upgradectl
