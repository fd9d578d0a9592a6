#include "tools/upgradectl/run_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tools/upgradectl/run_events.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

using kavro::agent::RunObserver;

constexpr int kMostBarColumns = 40;
constexpr int kLeastBarColumns = 10;
constexpr int kProgressStep = 10;
constexpr int kWholeProgress = 100;
constexpr const char* kStartOfLine = "\r\x1b[K";

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    std::array<char, 160> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

const char* stageName(int stage) {
    return COMMON_YR::getKeyString(stage, UpgradeProc::stageNames);
}

std::string minutes(double seconds) {
    const long whole = std::lround(std::max(seconds, 0.0));
    return formatted("%ld:%02ld", whole / 60, whole % 60);
}

std::string bar(int progress, int columns) {
    const int filled = std::clamp(columns * progress / kWholeProgress, 0, columns);
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(columns - filled), '.') + "] ";
}

// What a terminal's line says, from the whole text to what is left of it on the narrowest terminal.
std::array<std::string, 4> statusTexts(const RunStatus& status) {
    const std::string percent = formatted("%3d %%", status.progress);
    const std::string stage = formatted("  %-15s", stageName(status.stage));
    const std::string passed = formatted("  %5s", minutes(status.seconds).c_str());
    const std::string left =
        formatted("  %5s left", status.remaining ? minutes(*status.remaining).c_str() : "--:--");
    return {percent + stage + passed + left, percent + stage + left, percent + stage, percent};
}

void writeEnd(const OwnOutput& output, const RunRecord& record) {
    if (!record.error) {  // a failure is told on standard error
        output.writeLine(record.outcome);
        output.writeLine("  next: " + record.nextStep);
    }
}

class TerminalView : public RunObserver {
  public:
    explicit TerminalView(const OwnOutput& target) : output(target) {}

    void show(const RunStatus& status) override {
        const std::string line = terminalLine(status, output.columns());
        if (line != drawn) {
            output.write(kStartOfLine + line);
        }
        drawn = line;
    }
    void notice(const std::string& text, double /*seconds*/) override {
        output.write(kStartOfLine + text + "\n");
        drawn.clear();
    }
    void end(const RunRecord& record) override {
        if (!drawn.empty()) {
            output.write("\n");
        }
        writeEnd(output, record);
    }

  private:
    const OwnOutput& output;
    std::string drawn;
};

class PlainView : public RunObserver {
  public:
    explicit PlainView(const OwnOutput& target) : output(target) {}

    void show(const RunStatus& status) override {
        const bool same = status.stage == last.stage && status.state == last.state &&
                          status.progress / kProgressStep == last.progress / kProgressStep;
        if (!same || !shown) {
            output.writeLine(plainLine(status));
        }
        last = status;
        shown = true;
    }
    void notice(const std::string& text, double /*seconds*/) override { output.writeLine(text); }
    void end(const RunRecord& record) override { writeEnd(output, record); }

  private:
    const OwnOutput& output;
    RunStatus last;
    bool shown = false;
};

}  // namespace

std::string terminalLine(const RunStatus& status, int columns) {
    // The last column stays free: some terminals wrap when it is written.
    const int room = std::max(columns - 1, 0);
    const std::array<std::string, 4> texts = statusTexts(status);
    const auto width = [](const std::string& text) { return static_cast<int>(text.size()); };
    const int barColumns = std::min(room - width(texts.front()) - width(bar(0, 0)), kMostBarColumns);
    if (barColumns >= kLeastBarColumns) {
        return bar(status.progress, barColumns) + texts.front();
    }
    const auto fits = [&](const std::string& text) { return width(text) <= room; };
    const auto* const text = std::find_if(texts.begin(), texts.end() - 1, fits);
    return text->substr(0, static_cast<std::size_t>(room));
}

std::string plainLine(const RunStatus& status) {
    return formatted("%6.1f s  %3d %%  stage %s, state %s", status.seconds, status.progress,
                     stageName(status.stage), COMMON_YR::getKeyString(status.state, UpgradeProc::stateNames));
}

std::unique_ptr<kavro::agent::RunObserver> makeRunView(const OwnOutput& output, OutputForm form) {
    switch (form) {
        case OutputForm::kTerminal:
            return std::make_unique<TerminalView>(output);
        case OutputForm::kPlain:
            return std::make_unique<PlainView>(output);
        case OutputForm::kJson:
            return makeRunEvents(output);
    }
    return nullptr;
}

}  // namespace upgradectl
