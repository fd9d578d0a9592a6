#include "tools/upgradectl/run_view.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

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

std::string bar(int progress, int columns) {
    const int filled = std::clamp(columns * progress / kWholeProgress, 0, columns);
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(columns - filled), '.') + "] ";
}

class TerminalView : public RunView {
  public:
    explicit TerminalView(const OwnOutput& target) : output(target) {}

    void show(const RunStatus& status) override {
        output.write(kStartOfLine + terminalLine(status, output.columns()));
    }
    void notice(const std::string& text) override { output.write(kStartOfLine + text + "\n"); }
    void finish() override { output.write("\n"); }

  private:
    const OwnOutput& output;
};

class PlainView : public RunView {
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
    void notice(const std::string& text) override { output.writeLine(text); }

  private:
    const OwnOutput& output;
    RunStatus last;
    bool shown = false;
};

}  // namespace

std::string terminalLine(const RunStatus& status, int columns) {
    const int seconds = static_cast<int>(status.seconds);
    const std::string text = formatted("%3d %%  %-15s %d:%02d", status.progress, stageName(status.stage),
                                       seconds / 60, seconds % 60);
    // The last column stays free: some terminals wrap when it is written.
    const int room = columns - static_cast<int>(text.size()) - 1;
    const int barColumns = std::min(room - static_cast<int>(bar(0, 0).size()), kMostBarColumns);
    if (barColumns >= kLeastBarColumns) {
        return bar(status.progress, barColumns) + text;
    }
    return text.substr(0, static_cast<std::size_t>(std::max(columns - 1, 0)));
}

std::string plainLine(const RunStatus& status) {
    return formatted("%6.1f s  %3d %%  stage %s, state %s", status.seconds, status.progress,
                     stageName(status.stage), COMMON_YR::getKeyString(status.state, UpgradeProc::stateNames));
}

std::unique_ptr<RunView> makeRunView(const OwnOutput& output) {
    if (output.isTerminal()) {
        return std::make_unique<TerminalView>(output);
    }
    return std::make_unique<PlainView>(output);
}

}  // namespace upgradectl
