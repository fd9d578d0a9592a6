// What is looked at before a device is changed. Everything that is wrong is told at once, and nothing was removed or written
// by then.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/export.h"
#include "package/check.h"

namespace kavro::agent {

// What an installation would be refused for, and what may be overridden. The names are stable, and come in this order:
//
//     not_root         the device belongs to another user; its root directory tells whose it is
//     busy             another operation changes the device
//     work_file        the package is a file that the run itself replaces
//     package          it is missing, damaged, or signed with another key
//     no_room          a file system has less room than the run needs of it
//     not_writable     a directory that the run writes to
//     microcontroller  it is to be programmed, and does not answer
//     slot_unknown     the board cannot tell its slots
//     on_trial         the other slot is all there is to fall back to              (forceable)
//     failed_trial     the device has fallen back from this release                (forceable)
//     same_version     the device runs this release, and holds nothing else        (forceable)
struct Obstacle {
    std::string name;        // one of these
    std::string text;        // one sentence without a full stop
    std::string next;        // what can be done about it
    bool forceable = false;  // `force` goes over it
};

// What is asked for.
struct PreflightOptions {
    std::optional<std::filesystem::path> trustedKey;  // PEM, public: the package must carry it
    bool force = false;                               // forceable obstacles are told, and count for nothing
    bool ignoreLock = false;                          // this process has the device already
};

// What was found.
struct Preflight {
    std::vector<Obstacle> obstacles;       // that are in the way
    std::vector<Obstacle> overridden;      // that `force` has gone over
    std::optional<package::Check> check;   // of the package, when it could be read
    std::string version;                   // of the package, "V01.105.008.003"; empty when unknown
    bool programsMicrocontroller = false;  // the package brings another version than the microcontroller has

    // Nothing is in the way.
    bool clear() const { return obstacles.empty(); }
};

// Looks at the device and at the package that is to be installed; the texts name the package by this path. Changes nothing.
// While another operation changes the device, what that one changes is not looked at: room, microcontroller, slots and
// what is flashed.
//
// An error is what keeps it from looking at all: usage, when the trusted key cannot be read. Blocks until the package was
// read, and the microcontroller was asked. One thread at a time.
KAVRO_EXPORT Result<Preflight> preflight(const std::filesystem::path& package,
                                         const PreflightOptions& options);

// The obstacles as one error, the first in front: refused, or busy when only that is in the way. Only when !clear().
KAVRO_EXPORT Error errorOf(const Preflight& preflight);

// What a package is refused for that was checked already; nothing when it is in order. trustedKey: what it was checked with.
KAVRO_EXPORT std::optional<Obstacle> obstacleOf(const std::filesystem::path& package,
                                                const package::Check& check,
                                                const std::optional<std::filesystem::path>& trustedKey);

}  // namespace kavro::agent
