// How the time of a run was spent, as its record tells.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/run.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

using kavro::agent::RunRecord;

// Times are seconds since the command began, as in the record.
struct StageSpan {
    int stage = 0;  // UpgradeStage
    bool reached = false;
    bool wasLast = false;  // the run's end found it in this stage
    double begin = 0;
    double seconds = 0;
    double expectedSeconds = 0;

    // Markedly longer than expected: some stages take what is expected of them, to the hundredth of a second. Before
    // the run, in IDLE, the command may read a whole package, which says nothing of the device.
    bool overLong() const { return stage != UPGRADE_STAGE_IDLE && seconds > 1.5 * expectedSeconds; }
};

// All stages, in their order, whether or not the run reached them. Without any stage in the record none is reached.
std::vector<StageSpan> stageSpans(const RunRecord& record);

enum class Processor { kMain, kMicrocontroller };

struct FlashingStep {
    const char* name;
    double begin = 0;
    double seconds = 0;
};

struct FlashingSpan {
    enum class End { kUnknown, kDone, kFailed };

    double begin = 0;
    double seconds = 0;
    std::vector<FlashingStep> steps;  // they cover the span
    End end = End::kUnknown;
    std::string error;  // the first that the processor's thread logged; empty without any
};

// From the begin of flashing, when both processors' threads are started, to the last line of the processor's thread.
// Nothing when the run left the processor as it was: no line of the thread, or lines that say so.
std::optional<FlashingSpan> flashingSpan(const RunRecord& record, Processor processor);

}  // namespace upgradectl
