// What is true of the device, read as a whole, from any process.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"

namespace kavro::agent {

// Versions are texts as "V01.105.008.003". What a board does not tell is empty or nothing.

// An operation of some process that changes the device now.
struct RunInProgress {
    int pid = 0;                 // 0 when unknown
    std::string command;         // its command line
    std::string stage;           // "FLASHING_START"; empty when it does not make a run, or does not tell
    std::string state;           // "INPROGRESS_MPU"; the same
    std::optional<int> percent;  // 0 to 100; the same
};

// One of the places for packages.
struct KeptPackage {
    std::string path;                // of the file, whether it is there or not
    std::optional<long long> bytes;  // nothing when there is no such file
    bool whole = false;              // it has the length of a package
    std::string version;             // empty when it is no package
};

// How the device came to run what it runs, when the boot loader had given up another release.
struct Fallback {
    std::string release;  // that failed its trial
    std::string time;     // when it was found out, UTC, as "2026-11-22T10:00:00Z"
};

// All of it, as of one moment.
struct State {
    std::string runningVersion;  // of the software that runs, as its release tells
    std::string currentVersion;  // of what is flashed; parts that are unfinished are negative

    std::string runningSlot;      // the one that was started
    std::string nextSlot;         // the one that starts next
    std::string nextVersion;      // of what starts next
    bool restartPending = false;  // what starts next is not what runs

    bool onTrial = false;           // what starts next is not confirmed
    std::optional<int> trialStart;  // how often it was started
    std::optional<int> trialLimit;  // and how often it may be

    std::optional<Fallback> fallback;  // the last one, unless an activation came after it

    std::string awaitingVersion;    // of the installed package that awaits its activation; empty for none
    bool awaitsActivation = false;  // an installed package does

    std::optional<RunInProgress> run;  // of another process

    std::optional<int> microcontroller;  // its version; nothing when it gives none
    std::string microcontrollerFault;    // why none, or that it is of another release; empty when all is well

    std::string lastRun;                // "none", "upgrade_success" ...; empty when its record is damaged
    std::vector<KeptPackage> packages;  // current, rollback, received

    std::string
        boardFault;  // why the slots are not known; empty where they are, or where the board does not tell

    // What somebody must do, as sentences with a next step each; empty when all is well.
    struct Need {
        std::string
            name;  // stable: "versions", "board", "activate", "install_again", "restart", "confirm", "repair"
        std::string text;  // what is so, a sentence without a full stop
        std::string next;  // what to do about it
    };
    std::vector<Need> needs;  // in the order in which they are to be met
};

// Reads it without changing anything and without waiting for a run. Blocks for as long as it takes to ask the
// microcontroller, which is not asked while a run has it. Never fails as a whole: what cannot be read is told in its place.
KAVRO_EXPORT State readState();

}  // namespace kavro::agent
