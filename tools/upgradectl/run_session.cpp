#include "tools/upgradectl/run_session.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

#include "agent/history.h"
#include "package/trailer.h"
#include "tools/upgradectl/device_log.h"
#include "tools/upgradectl/device_turn.h"
#include "tools/upgradectl/report_place.h"
#include "tools/upgradectl/run_report.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

OutputForm formOf(const RunOptions& options, const OwnOutput& output) {
    if (options.json) {
        return OutputForm::kJson;
    }
    return options.plain || !output.isTerminal() ? OutputForm::kPlain : OutputForm::kTerminal;
}

std::string currentVersion() {
    std::string version;
    UPGRADE_get_cur_ver_str(version);
    return version;
}

std::vector<LoggedLine> logSince(const Clock& clock) {
    const DeviceLog log = loggedLines();
    std::vector<LoggedLine> lines;
    lines.reserve(log.lines.size() + 1);
    for (const DeviceLine& line : log.lines) {
        lines.push_back({clock.secondsAt(line.ms), line.level, line.thread, line.text});
    }
    if (log.dropped > 0) {
        constexpr int kNotice = 2;
        lines.push_back(
            {clock.seconds(), kNotice, "", std::to_string(log.dropped) + " more lines were not kept"});
    }
    return lines;
}

RunEnd endOf(const kavro::Error& error) {
    return {exitCodeOf(error), error.text, error.next, error.details, 0, error.further};
}

// From the first check to the last line that is shown.
class RunSession {
  public:
    RunSession(const RunKind& which, const RunOptions& wanted, const Interrupts& source)
        : kind(which),
          options(wanted),
          interrupts(source),
          view(makeRunView(output, formOf(wanted, output))) {
        record.command = kind.command;
        record.package = kind.package.string();
        record.begun = std::time(nullptr);
    }

    void perform() {
        RunEnd result;
        std::exception_ptr failure;
        try {
            placeReport();
            device.emplace(takeDevice(options.patience, interrupts));
            result = kind.judge(checkAndRun());
        } catch (const Failure& caught) {
            result = endOf(caught.error());
            failure = std::current_exception();
        } catch (const std::exception& caught) {
            result = endOf(kavro::unexpectedError(caught));
            failure = std::current_exception();
        }
        end(result);
        if (failure) {
            std::rethrow_exception(failure);
        }
    }

  private:
    void placeReport() {
        if (options.report) {
            requirePlaceForReport(*options.report, {kind.package, options.trustedKey.value_or("")});
            hasPlaceForReport = true;
        }
    }

    RunOutcome checkAndRun() {
        record.packageVersion = kavro::package::readVersion(kind.package);
        kind.require(findings);
        requireNotGivenUp();
        record.versionBefore = currentVersion();
        view->begin(
            {kind.command, record.package, record.packageVersion, record.versionBefore, clock.seconds()});
        for (const std::string& notice : findings.notices) {
            view->notice(notice, clock.seconds());
        }
        RunOutcome outcome = watchRun(kind.run, *view, interrupts, clock);
        record.stages = outcome.stages;
        record.states = outcome.states;
        return outcome;
    }

    void requireNotGivenUp() const {
        if (interrupts.count() > 0) {
            throw Failure(ErrorCode::kGivenUp, "given up before the run began, nothing was flashed",
                          "start it again whenever you like");
        }
    }

    void end(RunEnd result) {
        result.seconds = clock.seconds();
        view->end(result);
        if (!record.versionBefore.empty()) {  // otherwise nothing was begun
            note(result);
        }
        if (hasPlaceForReport) {
            report(result);
        }
    }

    // The result of the run stands, whatever becomes of its note.
    void note(const RunEnd& result) {
        kavro::agent::HistoryEntry entry;
        entry.event = kind.command;
        entry.outcome = result.code == ExitCode::kOk ? "ok" : nameOf(static_cast<ErrorCode>(result.code));
        entry.release = record.packageVersion;
        entry.before = record.versionBefore;
        entry.package = record.package;
        entry.keyDigest = findings.keyDigest;
        entry.text = result.code == ExitCode::kOk ? "" : result.message;
        const kavro::Result<void> noted = appendHistory(entry);
        if (!noted.ok()) {
            std::fprintf(stderr, "upgradectl: warning: the history has no note of this: %s\n",
                         noted.error().text.c_str());
        }
    }

    // The result of the run stands, whatever becomes of its report.
    void report(const RunEnd& result) {
        record.components = findings.components;
        record.seconds = result.seconds;
        record.exitCode = static_cast<int>(result.code);
        record.outcome = result.message;
        record.nextStep = result.next;
        if (!record.versionBefore.empty()) {  // otherwise nothing was run
            record.versionAfter = currentVersion();
        }
        record.log = logSince(clock);
        try {
            writeRunReport(*options.report, record);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "upgradectl: warning: there is no report: %s\n", error.what());
        }
    }

    const RunKind& kind;
    const RunOptions& options;
    const Interrupts& interrupts;
    const OwnOutput output;
    const Clock clock;
    const std::unique_ptr<RunView> view;
    RunRecord record;
    Findings findings;
    std::optional<kavro::agent::DeviceLock> device;  // until everything is told
    bool hasPlaceForReport = false;
};

}  // namespace

void performRun(const RunKind& kind, const RunOptions& options, const Interrupts& interrupts) {
    RunSession(kind, options, interrupts).perform();
}

}  // namespace upgradectl
