#include "agent/history.h"

#include <json/reader.h>
#include <json/value.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/internal/line_file.h"
#include "base/failure.h"
#include "base/file_io.h"
#include "base/json_text.h"
#include "base/time_stamp.h"
#include "common/cancellation.h"

namespace kavro::agent {

namespace {

struct Member {
    const char* name;
    std::string HistoryEntry::*text;
};

constexpr Member kMembers[] = {
    {"time", &HistoryEntry::time},       {"event", &HistoryEntry::event},
    {"outcome", &HistoryEntry::outcome}, {"release", &HistoryEntry::release},
    {"before", &HistoryEntry::before},   {"package", &HistoryEntry::package},
    {"by", &HistoryEntry::by},           {"key_sha256", &HistoryEntry::keyDigest},
    {"text", &HistoryEntry::text},
};

// No line becomes too long for the file: a byte takes six at the most, "\u001b".
constexpr std::size_t kMostBytesOfByte = 6;
constexpr std::size_t kMostBytesOfName = 16;
constexpr std::size_t kMostStages = 16;
constexpr std::size_t kMostBytesOfNumber = 32;
static_assert(std::size(kMembers) * (kMostHistoryTextBytes * kMostBytesOfByte + kMostBytesOfName) +
                  kMostStages * kMostBytesOfNumber <
              kMostHistoryBytes);

constexpr const char* kStages = "stages";

// An entry is flat; what nests in lines of others must not take the stack of a small thread.
constexpr int kMostNesting = 16;

constexpr const char* kCut = "...";

bool continuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// Between two characters, where the text has any.
std::string cut(const std::string& text) {
    constexpr std::size_t kMostBytesOfCharacter = 4;
    if (text.size() <= kMostHistoryTextBytes) {
        return text;
    }
    const std::size_t most = kMostHistoryTextBytes - std::string(kCut).size();
    std::size_t end = most;
    while (most - end < kMostBytesOfCharacter - 1 && continuesCharacter(text[end])) {
        --end;
    }
    return text.substr(0, end) + kCut;
}

std::string userName() {
    constexpr std::size_t kBufferBytes = 4096;
    std::vector<char> buffer(kBufferBytes);
    passwd record = {};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->pw_name;
    }
    return "uid " + std::to_string(getuid());
}

std::string thisProcess() {
    std::string command;
    (void)!readBeginning("/proc/self/cmdline", kMostHistoryTextBytes, command);
    std::replace(command.begin(), command.end(), '\0', ' ');
    command.erase(command.find_last_not_of(' ') + 1);
    return userName() + (command.empty() ? "" : ": " + command);
}

HistoryEntry completed(HistoryEntry entry) {
    if (entry.time.empty()) {
        entry.time = utcTimeStamp();
    }
    if (entry.by.empty()) {
        entry.by = thisProcess();
    }
    for (const Member& member : kMembers) {
        entry.*member.text = cut(entry.*member.text);
    }
    return entry;
}

// Empty for what is no list of times.
std::vector<double> secondsIn(const Json::Value& list) {
    std::vector<double> seconds;
    for (Json::ArrayIndex index = 0; list.isArray() && index < list.size(); ++index) {
        if (!list[index].isNumeric() || list[index].asDouble() < 0 || seconds.size() == kMostStages) {
            return {};
        }
        seconds.push_back(list[index].asDouble());
    }
    return seconds;
}

// Nothing when it is no JSON object.
std::optional<Json::Value> objectIn(const std::string& line) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kMostNesting;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        Json::Value value;
        if (reader->parse(line.data(), line.data() + line.size(), &value, nullptr) && value.isObject()) {
            return value;
        }
    } catch (const Json::Exception&) {
        // It nests too deeply.
    }
    return std::nullopt;
}

std::optional<HistoryEntry> entryIn(const std::string& line) {
    const std::optional<Json::Value> object = objectIn(line);
    if (!object) {
        return std::nullopt;
    }
    HistoryEntry entry;
    for (const Member& member : kMembers) {
        const Json::Value& value = (*object)[member.name];
        if (value.isString()) {
            entry.*member.text = value.asString();
        } else if (object->isMember(member.name)) {
            return std::nullopt;
        }
    }
    entry.stageSeconds = secondsIn((*object)[kStages]);
    return entry.event.empty() ? std::nullopt : std::optional<HistoryEntry>(std::move(entry));
}

}  // namespace

Result<void> appendHistory(const HistoryEntry& entry) {
    const COMMON_YR::CancelHold hold;
    if (entry.event.empty()) {
        return Error{ErrorCode::kUsage, "an entry of the history has no event", "say what was done", {}, {}};
    }
    return resultOf([&] { appendLine(kHistoryFile, historyLine(completed(entry)), kMostHistoryBytes); });
}

Result<std::vector<HistoryEntry>> readHistory() {
    const COMMON_YR::CancelHold hold;
    return resultOf([] {
        std::vector<HistoryEntry> history;
        for (const std::string& line : readLines(kHistoryFile, kMostHistoryBytes)) {
            if (std::optional<HistoryEntry> entry = entryIn(line)) {
                history.push_back(std::move(*entry));
            }
        }
        return history;
    });
}

std::string historyLine(const HistoryEntry& entry) {
    Json::Value object(Json::objectValue);
    for (const Member& member : kMembers) {
        if (!(entry.*member.text).empty()) {
            object[member.name] = entry.*member.text;
        }
    }
    for (std::size_t stage = 0; stage < std::min(entry.stageSeconds.size(), kMostStages); ++stage) {
        object[kStages].append(entry.stageSeconds[stage]);
    }
    return jsonLine(object);
}

bool hasFailedTrial(const std::vector<HistoryEntry>& history, const std::string& release) {
    const auto last = std::find_if(history.rbegin(), history.rend(), [&release](const HistoryEntry& entry) {
        const bool decides = entry.event == "fallback" || (entry.event == "confirm" && entry.outcome == "ok");
        return decides && entry.release == release;
    });
    return last != history.rend() && last->event == "fallback";
}

}  // namespace kavro::agent
