// How a command of upgradectl ends: with an exit code, and for a failure the text that says what failed on which file, and
// the next step.
#pragma once

#include "base/failure.h"

namespace upgradectl {

using kavro::ErrorCode;
using kavro::Failure;

// The process's exit codes, those of failures by the numbers of the errors. Scripts depend on them; docs/upgradectl.md
// lists them.
enum class ExitCode : int {
    kOk = 0,
    kOther = static_cast<int>(ErrorCode::kOther),
    kUsage = static_cast<int>(ErrorCode::kUsage),
    kRefused = static_cast<int>(ErrorCode::kRefused),
    kFlashFailed = static_cast<int>(ErrorCode::kFlashFailed),
    kGivenUp = static_cast<int>(ErrorCode::kGivenUp),
    kBusy = static_cast<int>(ErrorCode::kBusy),
};

constexpr ExitCode exitCodeOf(const kavro::Error& error) {
    return static_cast<ExitCode>(error.code);
}

}  // namespace upgradectl
