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

// What an installation would be refused for, and what may be overridden.
struct Obstacle {
    std::string
        name;  // stable: "not_root", "busy", "no_room", "not_writable", "package", "microcontroller", "slot_unknown",
    // "on_trial", "failed_trial", "same_version", "awaits_activation", "work_file"
    std::string text;        // one sentence without a full stop
    std::string next;        // what can be done about it
    bool forceable = false;  // `force` goes over it
};

struct PreflightOptions {
    std::optional<std::filesystem::path> trustedKey;  // PEM, public: the package must carry it
    bool force = false;                               // forceable obstacles are told, and count for nothing
    bool ignoreLock = false;                          // this process has the device already
};

struct Preflight {
    std::vector<Obstacle> obstacles;       // that are in the way
    std::vector<Obstacle> overridden;      // that `force` has gone over
    std::optional<package::Check> check;   // of the package, when it could be read
    std::string version;                   // of the package, "V01.105.008.003"; empty when unknown
    bool programsMicrocontroller = false;  // the package brings another version than the microcontroller has

    bool clear() const { return obstacles.empty(); }
};

// Looks at the device and at the package that is to be installed. Changes nothing. An error is what keeps it from looking at all:
// usage when the trusted key cannot be read. Blocks until the package was read, and the microcontroller was asked.
KAVRO_EXPORT Result<Preflight> preflight(const std::filesystem::path& package,
                                         const PreflightOptions& options);

// The obstacles as one error: refused, or busy when only that is in the way.
KAVRO_EXPORT Error errorOf(const Preflight& preflight, const std::filesystem::path& package);

}  // namespace kavro::agent
