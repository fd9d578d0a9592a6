// Telling whether a package can be installed, without doing it: the command check.
#pragma once

#include <filesystem>
#include <optional>

#include "tools/upgradectl/own_output.h"

namespace upgradectl {

struct CheckRequest {
    std::filesystem::path package;
    std::optional<std::filesystem::path> trustedKey;
    bool force = false;
    bool json = false;
};

// Prints what was found: with json one object, whose members docs/upgradectl.md lists, else a line when nothing is in the
// way. Throws Failure with everything that is: refused, or busy; usage for a trusted key that cannot be read.
void checkInstallation(const OwnOutput& output, const CheckRequest& request);

}  // namespace upgradectl
