#include "tools/upgradectl/device_status.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "agent/device_log.h"
#include "agent/flash_drivers.h"
#include "agent/state.h"
#include "base/json_text.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

using kavro::agent::KeptPackage;
using kavro::agent::State;

// By the answers of UPGRADE_get_state.
struct DeviceStateRow {
    int state;
    const char* name;  // for programs
    const char* text;
};

constexpr int kRunning = 1;
constexpr DeviceStateRow kDeviceStates[] = {
    {0, "idle", "idle"},
    {kRunning, "running", "a run is in progress"},
    {2, "installed", "installed, awaits activation"},
    {3, "activated", "activated"},
};

constexpr const char* kUnknown = "unknown";

DeviceStateRow deviceState(const State& state) {
    const int number = state.run ? kRunning : UPGRADE_get_state();
    for (const DeviceStateRow& row : kDeviceStates) {
        if (row.state == number) {
            return row;
        }
    }
    return {number, kUnknown, kUnknown};
}

std::string row(const std::string& name, const std::string& value) {
    constexpr std::size_t kNameColumns = 24;
    std::string text = name;
    text.resize(std::max(kNameColumns, name.size() + 1), ' ');
    return text + value;
}

std::string orUnknown(const std::string& text) {
    return text.empty() ? kUnknown : text;
}

// A negative part is that of what is about to be written: it stays when the writing does not come to its end.
std::string currentVersionText(const std::string& version) {
    std::string text = version;
    for (std::size_t at = text.find('-'); at != std::string::npos; at = text.find('-', at + 2)) {
        const std::size_t end = std::min(text.find_first_not_of("0123456789", at + 1), text.size());
        text.replace(at, end - at, "--");
    }
    return text == version ? orUnknown(version) : text + " (--: unfinished)";
}

std::string lastRunText(const State& state) {
    return state.lastRun.empty() ? std::string(kUnknown) + " (" + UPGRADE_LAST_RUNTIME_FILE + " is damaged)"
                                 : state.lastRun;
}

std::string microcontrollerText(const State& state) {
    if (state.run) {
        return "not asked during a run";
    }
    return state.microcontroller ? std::to_string(*state.microcontroller) : "no answer";
}

std::string trialText(const State& state) {
    return state.trialStart && state.trialLimit
               ? "start " + std::to_string(*state.trialStart) + " of " + std::to_string(*state.trialLimit)
               : "yes";
}

std::string runText(const State& state) {
    const std::string process =
        state.run->pid > 0 ? "process " + std::to_string(state.run->pid) : "another process";
    const std::string percent = state.run->percent ? " " + std::to_string(*state.run->percent) + " %" : "";
    return process + (state.run->command.empty() ? "" : " (" + state.run->command + ")") +
           (state.run->stage.empty() ? "" : ", stage " + state.run->stage + percent);
}

std::string textOf(const KeptPackage& file) {
    if (!file.bytes) {
        return "-";
    }
    return std::to_string(*file.bytes) + " bytes" + (file.whole ? "" : " (not a whole package)");
}

// What is the same on most days is not shown.
void writeUnusual(const OwnOutput& output, const State& state) {
    if (state.run) {
        output.writeLine(row("run", runText(state)));
    }
    if (state.onTrial) {
        output.writeLine(row("trial", trialText(state)));
    }
    if (state.fallback) {
        output.writeLine(
            row("fell back", "from " + state.fallback->release + ", found at " + state.fallback->time));
    }
}

void writeStatus(const OwnOutput& output, const State& state) {
    output.writeLine(row("factory version", orUnknown(state.runningVersion)));
    output.writeLine(row("current version", currentVersionText(state.currentVersion)));
    output.writeLine(row("state", deviceState(state).text));
    output.writeLine(row("running slot", orUnknown(state.runningSlot)));
    output.writeLine(row("next slot", orUnknown(state.nextSlot)));
    output.writeLine(row("microcontroller", microcontrollerText(state)));
    writeUnusual(output, state);
    output.writeLine(row("last run", lastRunText(state)));
    for (const KeptPackage& file : state.packages) {
        output.writeLine(row(file.path, textOf(file)));
    }
    for (const State::Need& need : state.needs) {
        output.writeLine(row("to do", need.next + ": " + need.text));
    }
}

Json::Value numberOrNull(const std::optional<int>& number) {
    return number ? Json::Value(*number) : Json::Value();
}

Json::Value packagesJson(const std::vector<KeptPackage>& packages) {
    Json::Value list = Json::arrayValue;
    for (const KeptPackage& file : packages) {
        Json::Value entry;
        entry["path"] = file.path;
        entry["bytes"] = file.bytes ? Json::Value(Json::Int64{*file.bytes}) : Json::Value();
        entry["whole"] = file.whole;
        entry["version"] = kavro::textOrNull(file.version);
        list.append(entry);
    }
    return list;
}

Json::Value needsJson(const std::vector<State::Need>& needs) {
    Json::Value list = Json::arrayValue;
    for (const State::Need& need : needs) {
        Json::Value entry;
        entry["name"] = need.name;
        entry["text"] = need.text;
        entry["next"] = need.next;
        list.append(entry);
    }
    return list;
}

// Null for what there is not.
Json::Value unusualJson(const State& state) {
    Json::Value value;
    value["run"] = value["trial"] = value["fallback"] = Json::Value();
    if (state.run) {
        value["run"]["pid"] = state.run->pid > 0 ? Json::Value(state.run->pid) : Json::Value();
        value["run"]["command"] = kavro::textOrNull(state.run->command);
        value["run"]["stage"] = kavro::textOrNull(state.run->stage);
        value["run"]["state"] = kavro::textOrNull(state.run->state);
        value["run"]["percent"] = numberOrNull(state.run->percent);
    }
    if (state.onTrial) {
        value["trial"]["start"] = numberOrNull(state.trialStart);
        value["trial"]["limit"] = numberOrNull(state.trialLimit);
    }
    if (state.fallback) {
        value["fallback"]["release"] = state.fallback->release;
        value["fallback"]["time"] = state.fallback->time;
    }
    return value;
}

Json::Value statusJson(const State& state) {
    Json::Value status = unusualJson(state);
    status["factory_version"] = kavro::textOrNull(state.runningVersion);
    status["current_version"] = kavro::textOrNull(state.currentVersion);
    status["state"] = deviceState(state).name;
    status["running_slot"] = kavro::textOrNull(state.runningSlot);
    status["next_slot"] = kavro::textOrNull(state.nextSlot);
    status["next_version"] = kavro::textOrNull(state.nextVersion);
    status["restart_pending"] = state.restartPending;
    status["awaiting_version"] = kavro::textOrNull(state.awaitingVersion);
    status["microcontroller"] = numberOrNull(state.microcontroller);
    status["microcontroller_fault"] = kavro::textOrNull(state.microcontrollerFault);
    status["last_run"] = kavro::textOrNull(state.lastRun);
    status["packages"] = packagesJson(state.packages);
    status["needs"] = needsJson(state.needs);
    return status;
}

// As the error that the first one is; the others are told along with it.
void requireNothingToDo(const State& state) {
    if (state.needs.empty()) {
        return;
    }
    std::vector<kavro::Error> errors;
    for (const State::Need& need : state.needs) {
        errors.push_back({ErrorCode::kOther, need.text, need.next, {}, {}});
    }
    kavro::Error error = errors.front();
    error.details = kavro::agent::loggedErrors();
    error.further.assign(errors.begin() + 1, errors.end());
    throw Failure(error);
}

// Of those that the device keeps from one upgrade to the next.
std::vector<KeptPackage> keptPackages(const State& state) {
    std::vector<KeptPackage> kept;
    std::copy_if(state.packages.begin(), state.packages.end(), std::back_inserter(kept),
                 [](const KeptPackage& package) { return package.path != UpgradeProc::recvPkg; });
    return kept;
}

void writeVersions(const OwnOutput& output, const State& state) {
    output.writeLine(row("factory version", orUnknown(state.runningVersion)));
    output.writeLine(row("current version", currentVersionText(state.currentVersion)));
    output.writeLine(row("microcontroller", microcontrollerText(state)));
    for (const KeptPackage& package : keptPackages(state)) {
        output.writeLine(row(package.path, package.bytes ? orUnknown(package.version) : "-"));
    }
}

Json::Value versionsJson(const State& state) {
    Json::Value value;
    value["factory_version"] = kavro::textOrNull(state.runningVersion);
    value["current_version"] = kavro::textOrNull(state.currentVersion);
    value["microcontroller"] = numberOrNull(state.microcontroller);
    value["packages"] = Json::arrayValue;
    for (const KeptPackage& package : keptPackages(state)) {
        Json::Value entry;
        entry["path"] = package.path;
        entry["version"] = kavro::textOrNull(package.version);
        value["packages"].append(entry);
    }
    return value;
}

void requireKnownVersions(const State& state) {
    for (const State::Need& need : state.needs) {
        if (need.name == "versions") {
            throw Failure(ErrorCode::kOther, need.text, need.next, kavro::agent::loggedErrors());
        }
    }
}

}  // namespace

void showStatus(const OwnOutput& output, bool consume, bool json) {
    const State state = kavro::agent::readState();
    if (json) {
        output.writeLine(kavro::jsonText(statusJson(state)));
    } else {
        writeStatus(output, state);
    }
    if (consume) {
        UPG_STS_LSAT_RT_E ignored = UPG_STS_LAST_RT_NONE;
        UPGRADE_get_status_last_runtime(&ignored);
    }
    requireNothingToDo(state);
    kavro::valueOf(kavro::agent::checkFlashDrivers());
}

void showVersions(const OwnOutput& output, bool json) {
    const State state = kavro::agent::readState();
    if (json) {
        output.writeLine(kavro::jsonText(versionsJson(state)));
    } else {
        writeVersions(output, state);
    }
    requireKnownVersions(state);
}

}  // namespace upgradectl
