#include "tools/upgradectl/run_events.h"

#include "base/json_text.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

using kavro::agent::RunBegin;
using kavro::agent::RunObserver;
using kavro::agent::RunRecord;
using kavro::agent::RunStatus;

struct ResultRow {
    ExitCode code;
    const char* result;
};

constexpr ResultRow kResults[] = {
    {ExitCode::kOk, "done"},          {ExitCode::kOther, "failed"},
    {ExitCode::kUsage, "usage"},      {ExitCode::kRefused, "refused"},
    {ExitCode::kGivenUp, "given_up"}, {ExitCode::kFlashFailed, "flash_failed"},
    {ExitCode::kBusy, "busy"},
};

const char* resultOf(ExitCode code) {
    for (const ResultRow& row : kResults) {
        if (row.code == code) {
            return row.result;
        }
    }
    return "failed";
}

class RunEvents : public RunObserver {
  public:
    explicit RunEvents(const OwnOutput& target) : output(target) {}

    void begin(const RunBegin& run) override {
        Json::Value event;
        event["command"] = run.command;
        event["package"] = run.package;
        event["package_version"] = kavro::textOrNull(run.packageVersion);
        event["current_version"] = kavro::textOrNull(run.currentVersion);
        write("begin", run.seconds, event);
    }

    void show(const RunStatus& status) override {
        if (isFirst || status.stage != last.stage) {
            writeName("stage", COMMON_YR::getKeyString(status.stage, UpgradeProc::stageNames), status);
        }
        if (isFirst || status.state != last.state) {
            writeName("state", COMMON_YR::getKeyString(status.state, UpgradeProc::stateNames), status);
        }
        if (isFirst || status.progress != last.progress) {
            writeProgress(status);
        }
        last = status;
        isFirst = false;
    }

    void notice(const std::string& text, double seconds) override {
        Json::Value event;
        event["text"] = text;
        write("notice", seconds, event);
    }

    void end(const RunRecord& record) override {
        const kavro::Error error = record.error.value_or(kavro::Error());
        const ExitCode code = record.error ? exitCodeOf(error) : ExitCode::kOk;
        Json::Value event;
        event["result"] = resultOf(code);
        event["exit_code"] = static_cast<int>(code);
        event["message"] = record.outcome;
        event["next"] = record.nextStep;
        event["device"] = Json::arrayValue;
        for (const std::string& line : error.details) {
            event["device"].append(line);
        }
        for (const kavro::Error& other : error.further) {
            Json::Value entry;
            entry["message"] = other.text;
            entry["next"] = other.next;
            event["further"].append(entry);
        }
        write("end", record.seconds, event);
    }

  private:
    void writeName(const char* kind, const char* name, const RunStatus& status) {
        Json::Value event;
        event[kind] = name;
        write(kind, status.seconds, event);
    }

    void writeProgress(const RunStatus& status) {
        Json::Value event;
        event["percent"] = status.progress;
        event["remaining_seconds"] = status.remaining ? Json::Value(*status.remaining) : Json::Value();
        write("progress", status.seconds, event);
    }

    void write(const char* kind, double seconds, Json::Value& event) {
        event["event"] = kind;
        event["seconds"] = seconds;
        output.writeLine(kavro::jsonLine(event));
    }

    const OwnOutput& output;
    RunStatus last;
    bool isFirst = true;
};

}  // namespace

std::unique_ptr<kavro::agent::RunObserver> makeRunEvents(const OwnOutput& output) {
    return std::make_unique<RunEvents>(output);
}

}  // namespace upgradectl
