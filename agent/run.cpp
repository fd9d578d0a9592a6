#include "agent/run.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "agent/activation.h"
#include "agent/device_log.h"
#include "agent/flash_drivers.h"
#include "agent/history.h"
#include "agent/internal/device_log.h"
#include "agent/internal/run_failure.h"
#include "agent/internal/run_watch.h"
#include "agent/internal/torn_activation.h"
#include "agent/preflight.h"
#include "base/failure.h"
#include "package/trailer.h"

namespace kavro::agent {

namespace {

namespace fs = std::filesystem;

// A run wipes the work area, and the packages' directory when they do not fit into it; the others hold what the device
// needs to know of itself.
constexpr const char* kTakenDirectories[] = {"/raw", "/firmware", "/config", "/etc/kavro", "/dev"};

constexpr const char* kPublicKey = "/tmp/pubkey";  // of the package, for checking its signatures

// What was found before a run that may be made.
struct Findings {
    std::vector<package::ComponentCheck> components;
    std::string keyDigest;             // of the key that the package carries, as package::Check tells it
    std::vector<std::string> notices;  // sentences for people
};

// What was done, and what to do next.
struct Done {
    std::string text;
    std::string next;
};

// The two kinds of a run.
struct RunKind {
    std::string command;
    fs::path package;  // as the caller knows it
    // Throws Failure when a run must not be made, and says in any case what it has found.
    std::function<void(Findings&)> require;
    std::function<int()> run;
    // Throws the Failure of a run that failed or was given up.
    std::function<Done(const RunOutcome&)> judge;
};

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

// Runs differ from one to the next.
constexpr std::size_t kRunsToLearnFrom = 3;
constexpr double kAllowance = 1.2;

// What the stages took at most in the last runs that succeeded.
StageSeconds learnedStageSeconds() {
    const Result<std::vector<HistoryEntry>> history = readHistory();
    StageSeconds longest = {};
    std::size_t runs = 0;
    const auto learn = [&](const HistoryEntry& entry) {
        if (runs < kRunsToLearnFrom && entry.outcome == "ok" && entry.stageSeconds.size() == longest.size()) {
            std::transform(longest.begin(), longest.end(), entry.stageSeconds.begin(), longest.begin(),
                           [](double most, double taken) { return std::max(most, kAllowance * taken); });
            ++runs;
        }
    };
    if (history.ok()) {
        std::for_each(history.value().rbegin(), history.value().rend(), learn);
    }
    return runs > 0 ? longest : kUsualStageSeconds;
}

// By UpgradeStage; those that were not seen have 0.
std::vector<double> takenStageSeconds(const RunRecord& record) {
    std::vector<double> taken(record.stages.empty() ? 0 : UpgradeProc::kStageCount);
    for (std::size_t index = 0; index + 1 < record.stages.size(); ++index) {
        const StageChange& change = record.stages[index];
        taken[static_cast<std::size_t>(change.stage)] = record.stages[index + 1].seconds - change.seconds;
    }
    return taken;
}

// From the taking of the device to the last that is told.
class RunSession {
  public:
    RunSession(const RunKind& which, const RunOptions& wanted, RunObserver& target)
        : kind(which), options(wanted), observer(target) {
        record.command = kind.command;
        record.package = kind.package.string();
        record.begun = std::time(nullptr);
    }

    Result<RunRecord> perform() {
        const Result<Done> done = resultOf([this] {
            device.emplace(takeDevice());
            keepDeviceLog();  // of this run alone; before, it may be another one's of this process
            return kind.judge(checkAndRun());
        });
        record.outcome = done.ok() ? done.value().text : done.error().text;
        record.nextStep = done.ok() ? done.value().next : done.error().next;
        if (!done.ok()) {
            record.error = done.error();
        }
        end();
        return done.ok() ? Result<RunRecord>(std::move(record)) : Result<RunRecord>(done.error());
    }

  private:
    [[nodiscard]] int giveUps() const { return options.giveUps ? options.giveUps() : 0; }

    DeviceLock takeDevice() {
        Patience patience = options.patience;
        patience.keepWaiting = [this] {
            return giveUps() == 0 && (!options.patience.keepWaiting || options.patience.keepWaiting());
        };
        return valueOf(DeviceLock::take(patience));
    }

    RunOutcome checkAndRun() {
        record.packageVersion = package::readVersion(kind.package);
        kind.require(findings);
        requireNotGivenUp();
        record.versionBefore = currentVersion();
        observer.begin(
            {kind.command, record.package, record.packageVersion, record.versionBefore, clock.seconds()});
        for (const std::string& notice : findings.notices) {
            observer.notice(notice, clock.seconds());
        }
        RunOutcome outcome = watchRun(
            kind.run, observer, [this] { return giveUps(); }, measureOfRun(), clock);
        record.stages = outcome.stages;
        record.states = outcome.states;
        return outcome;
    }

    [[nodiscard]] RunMeasure measureOfRun() const {
        RunMeasure measure;
        measure.stageSeconds = learnedStageSeconds();
        for (const package::ComponentCheck& component : findings.components) {
            measure.contentBytes += component.bytes;
        }
        return measure;
    }

    void requireNotGivenUp() const {
        if (giveUps() > 0) {
            throw Failure(ErrorCode::kGivenUp, "given up before the run began, nothing was flashed",
                          "start it again whenever you like");
        }
    }

    void end() {
        record.seconds = clock.seconds();
        record.components = findings.components;
        if (device) {
            record.log = logSince(clock);
        }
        if (!record.versionBefore.empty()) {  // otherwise nothing was begun
            record.versionAfter = currentVersion();
            note();
        }
        observer.end(record);
    }

    // The result of the run stands, whatever becomes of its note.
    void note() {
        HistoryEntry entry;
        entry.event = kind.command;
        entry.outcome = record.error ? nameOf(record.error->code) : "ok";
        entry.release = record.packageVersion;
        entry.before = record.versionBefore;
        entry.package = record.package;
        entry.keyDigest = findings.keyDigest;
        entry.text = record.error ? record.outcome : "";
        if (!record.error) {
            entry.stageSeconds = takenStageSeconds(record);
        }
        const Result<void> noted = appendHistory(entry);
        record.historyFault = noted.ok() ? "" : noted.error().text;
    }

    const RunKind& kind;
    const RunOptions& options;
    RunObserver& observer;
    const Clock clock;
    RunRecord record;
    Findings findings;
    std::optional<DeviceLock> device;  // until everything is told
};

// Everything that is in the way of the installation.
void requireInstallable(const fs::path& package, const RunOptions& options, Findings& findings) {
    valueOf(checkFlashDrivers());
    PreflightOptions wanted;
    wanted.trustedKey = options.trustedKey;
    wanted.force = options.force;
    wanted.ignoreLock = true;
    const Preflight found = valueOf(preflight(package, wanted));
    if (found.check) {
        findings.components = found.check->components;
        findings.keyDigest = found.check->keyDigest;
    }
    if (!found.clear()) {
        throw Failure(errorOf(found));
    }
    for (const Obstacle& obstacle : found.overridden) {
        findings.notices.push_back("by force: " + obstacle.text);
    }
}

// The run removes the kept package, which after a fallback that no start has followed is that of what runs. What is done about
// that may be in the way itself: the release may be the one that failed.
void requireInstallableAndSettled(const fs::path& package, const RunOptions& options, Findings& findings) {
    requireInstallable(package, options, findings);
    std::vector<std::string> done;
    settle(done);
    if (!done.empty()) {
        findings.notices = std::move(done);
        requireInstallable(package, options, findings);
    }
}

void requireWayBack(const RunOptions& options, Findings& findings, WayBack& way) {
    valueOf(checkFlashDrivers());
    settle(findings.notices);  // the kept package may be that of what runs, until a fallback was followed
    way = valueOf(findWayBack(options.trustedKey));
    findings.components = way.components;
}

Done installed(const RunOutcome& outcome, const fs::path& package) {
    if (outcome.result < 0) {
        throw installFailure(outcome, package.string());
    }
    if (!UPGRADE_isUpgraded()) {
        throw Failure(
            ErrorCode::kOther,
            "'" + package.string() + "' is installed, but the marker that it awaits activation is not",
            "make room in the file system at /config, then install the package again", loggedErrors());
    }
    return {"installed '" + package.string() + "', it awaits activation",
            "upgradectl activate, then restart the device"};
}

Done rolledBack(const RunOutcome& outcome, const std::string& release) {
    const bool runSucceeded = outcome.stage() == UPGRADE_STAGE_IDLE || outcome.stage() == UPGRADE_STAGE_DONE;
    if (outcome.result < 0 && !runSucceeded) {
        throw rollbackFailure(outcome);
    }
    if (outcome.result < 0) {
        throw Failure(ErrorCode::kOther, "the rolled back software could not be activated",
                      std::string("fix what the device: lines say, then run 'upgradectl ") +
                          (UPGRADE_isUpgraded() ? "activate'" : "rollback' again"),
                      loggedErrors());
    }
    return {"rolled back to " + release + ", which runs after the next restart", "restart the device"};
}

Result<RunRecord> perform(const RunKind& kind, const RunOptions& options, RunObserver* observer) {
    RunObserver nobody;
    return RunSession(kind, options, observer != nullptr ? *observer : nobody).perform();
}

}  // namespace

Result<RunRecord> install(const fs::path& package, const RunOptions& options, RunObserver* observer) {
    std::error_code ignored;  // a path that cannot be completed names no package that was checked
    const fs::path absolute = fs::absolute(package, ignored);
    return perform(
        {"install", package, [&](Findings& found) { requireInstallableAndSettled(package, options, found); },
         [&] { return UPGRADE_main_proc_fun(absolute.string()); },
         [&](const RunOutcome& outcome) { return installed(outcome, package); }},
        options, observer);
}

Result<RunRecord> rollback(const RunOptions& options, RunObserver* observer) {
    WayBack way;
    return perform(
        {"rollback", UpgradeProc::rollbackPkg,
         [&](Findings& findings) { requireWayBack(options, findings, way); }, [&] { return goBack(way); },
         [&](const RunOutcome& outcome) { return rolledBack(outcome, way.release); }},
        options, observer);
}

RunPlaces placesOfRuns() {
    RunPlaces places;
    places.directories.assign(std::begin(kTakenDirectories), std::end(kTakenDirectories));
    places.files = {UpgradeProc::tmpCfg, kPublicKey};
    const std::string log = deviceLogFile();
    if (!log.empty()) {
        places.files.emplace_back(log);
    }
    return places;
}

}  // namespace kavro::agent
