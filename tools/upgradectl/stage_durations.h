// How long the stages of a run are expected to take: what the library's progress estimate reckons with, which
// fits a device with slow storage and a full package.
#pragma once

#include <array>

#include "upgrade/upgrade_api.h"

namespace upgradectl {

// In seconds, by UpgradeStage. FLASHING_START is that of both processors side by side.
inline constexpr std::array<double, UpgradeProc::kStageCount> kExpectedStageSeconds = {1, 10,  30, 5, 1,
                                                                                       1, 180, 8,  1};

}  // namespace upgradectl
