#include "tools/upgradectl/run_timeline.h"

#include <algorithm>
#include <cstdlib>

namespace upgradectl {

namespace {

using kavro::agent::LoggedLine;
using kavro::agent::StageChange;

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// A run that is over goes back to IDLE; that is no stage of it.
bool isAfterTheRun(const std::vector<StageChange>& stages, std::size_t index) {
    return stages[index].stage == UPGRADE_STAGE_IDLE && index != 0;
}

std::vector<StageSpan> unreachedStages() {
    std::vector<StageSpan> spans;
    for (int stage = 0; stage < UpgradeProc::kStageCount; ++stage) {
        StageSpan span;
        span.stage = stage;
        span.expectedSeconds = kavro::agent::kUsualStageSeconds.at(static_cast<std::size_t>(stage));
        spans.push_back(span);
    }
    return spans;
}

// A run begins in IDLE, which is no change.
std::vector<StageChange> changesFromTheBegin(const RunRecord& record) {
    std::vector<StageChange> changes = record.stages;
    if (!changes.empty() && changes.front().stage != UPGRADE_STAGE_IDLE) {
        changes.insert(changes.begin(), {UPGRADE_STAGE_IDLE, 0});
    }
    return changes;
}

// --- The flashing threads' lines ----------------------------------------------------------------------------------

struct ThreadRow {
    Processor processor;
    const char* thread;
    const char* firstStep;
    const char* notNeeded;   // in the line that says that the processor is left as it is, of whatever thread
    const char* resultText;  // in the line that ends with the result, negative when it failed
};
constexpr ThreadRow kThreads[] = {
    {Processor::kMain, "aUpgrade_MPU", "check, write and compare the slot", "upgrade flag mpu[0]",
     "upgrade_mpu: ret is "},
    {Processor::kMicrocontroller, "aUpgrade_MCU", "check the firmware", "no need to upgrade mcu!",
     "upgrade_mcu_local ---, ret is "},
};

// A line with this text begins a step.
struct StepRow {
    Processor processor;
    const char* text;
    const char* step;
};
constexpr StepRow kSteps[] = {
    {Processor::kMicrocontroller, "[result INPROGRESS_MCU]", "switch the link on"},
    {Processor::kMicrocontroller, "UPGRADE_Mcu start", "program and start it"},
};

const ThreadRow& threadOf(Processor processor) {
    return *std::find_if(std::begin(kThreads), std::end(kThreads),
                         [processor](const ThreadRow& row) { return row.processor == processor; });
}

const char* stepThatBegins(Processor processor, const std::string& line) {
    for (const StepRow& row : kSteps) {
        if (row.processor == processor && contains(line, row.text)) {
            return row.step;
        }
    }
    return nullptr;
}

FlashingSpan::End endIn(const std::string& line, const char* resultText) {
    const std::size_t at = line.find(resultText);
    if (at == std::string::npos) {
        return FlashingSpan::End::kUnknown;
    }
    const std::string number = line.substr(at + std::char_traits<char>::length(resultText));
    return std::strtol(number.c_str(), nullptr, 10) < 0 ? FlashingSpan::End::kFailed
                                                        : FlashingSpan::End::kDone;
}

std::string firstError(const std::vector<const LoggedLine*>& lines) {
    constexpr int kErrorLevel = 1;
    const auto error = std::find_if(lines.begin(), lines.end(),
                                    [](const LoggedLine* line) { return line->level == kErrorLevel; });
    return error == lines.end() ? std::string() : (*error)->text;
}

bool wasLeftAlone(const RunRecord& record, const ThreadRow& row) {
    return std::any_of(record.log.begin(), record.log.end(),
                       [&](const LoggedLine& line) { return contains(line.text, row.notNeeded); });
}

std::vector<const LoggedLine*> linesOf(const RunRecord& record, const char* thread) {
    std::vector<const LoggedLine*> lines;
    for (const LoggedLine& line : record.log) {
        if (line.thread == thread) {
            lines.push_back(&line);
        }
    }
    return lines;
}

double beginOfFlashing(const RunRecord& record, double firstLine) {
    for (const StageChange& change : record.stages) {
        if (change.stage == UPGRADE_STAGE_FLASHING_START) {
            return std::min(change.seconds, firstLine);
        }
    }
    return firstLine;
}

// Each step lasts until the next one begins.
void setDurations(FlashingSpan& span) {
    double end = span.begin + span.seconds;
    for (auto step = span.steps.rbegin(); step != span.steps.rend(); ++step) {
        step->seconds = std::max(0.0, end - step->begin);
        end = step->begin;
    }
}

}  // namespace

std::vector<StageSpan> stageSpans(const RunRecord& record) {
    std::vector<StageSpan> spans = unreachedStages();
    const std::vector<StageChange> changes = changesFromTheBegin(record);
    StageSpan* last = nullptr;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const StageChange& change = changes[i];
        if (change.stage < 0 || change.stage >= UpgradeProc::kStageCount || isAfterTheRun(changes, i)) {
            continue;
        }
        const double end = i + 1 < changes.size() ? changes[i + 1].seconds : record.seconds;
        last = &spans[static_cast<std::size_t>(change.stage)];
        last->reached = true;
        last->begin = change.seconds;
        last->seconds = std::max(0.0, end - change.seconds);
    }
    if (last != nullptr) {
        last->wasLast = true;
    }
    return spans;
}

std::optional<FlashingSpan> flashingSpan(const RunRecord& record, Processor processor) {
    const ThreadRow& row = threadOf(processor);
    const std::vector<const LoggedLine*> lines = linesOf(record, row.thread);
    if (lines.empty() || wasLeftAlone(record, row)) {
        return std::nullopt;
    }
    FlashingSpan span;
    span.begin = beginOfFlashing(record, lines.front()->seconds);
    span.seconds = lines.back()->seconds - span.begin;
    span.steps.push_back({row.firstStep, span.begin});
    for (const LoggedLine* line : lines) {
        if (const char* step = stepThatBegins(processor, line->text)) {
            span.steps.push_back({step, line->seconds});
        }
        const FlashingSpan::End end = endIn(line->text, row.resultText);
        span.end = end == FlashingSpan::End::kUnknown ? span.end : end;
    }
    span.error = firstError(lines);
    setDurations(span);
    return span;
}

}  // namespace upgradectl
