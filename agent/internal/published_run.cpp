#include "agent/internal/published_run.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "base/file_io.h"
#include "base/json_text.h"
#include "common/cancellation.h"

namespace kavro::agent {

namespace {

constexpr const char* kDirectory = "/run/kavro";
constexpr const char* kFile = "/run/kavro/run.json";
constexpr const char* kNextFile = "/run/kavro/run.json.part";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;  // whatever the process's own mask is: everybody may know
constexpr std::size_t kMostBytes = 1024;

std::string textOf(const RunStatus& status) {
    Json::Value object;
    object["pid"] = getpid();
    object["stage"] = COMMON_YR::getKeyString(status.stage, UpgradeProc::stageNames);
    object["state"] = COMMON_YR::getKeyString(status.state, UpgradeProc::stateNames);
    object["percent"] = status.progress;
    return jsonLine(object) + "\n";
}

bool saysTheSame(const RunStatus& left, const RunStatus& right) {
    return left.stage == right.stage && left.state == right.state && left.progress == right.progress;
}

std::optional<PublishedRun> runIn(const std::string& text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value object;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &object, nullptr) && object.isObject()) {
            return PublishedRun{object["pid"].asInt(), object["stage"].asString(), object["state"].asString(),
                                object["percent"].asInt()};
        }
    } catch (const Json::Exception&) {
        // It is none of ours.
    }
    return std::nullopt;
}

}  // namespace

RunPublisher::~RunPublisher() {
    const COMMON_YR::CancelHold hold;
    if (file.valid()) {
        (void)unlink(kFile);
    }
    (void)file.close();
}

void RunPublisher::publish(const RunStatus& status) {
    const COMMON_YR::CancelHold hold;
    if (isTried && saysTheSame(status, last)) {
        return;
    }
    isTried = true;
    last = status;
    (void)mkdir(kDirectory, kDirectoryMode);
    FileDescriptor next(open(kNextFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    const std::string text = textOf(status);
    if (next.valid() && flock(next.get(), LOCK_EX | LOCK_NB) == 0 && fchmod(next.get(), kFileMode) == 0 &&
        writeFully(next.get(), text.data(), text.size()) && std::rename(kNextFile, kFile) == 0) {
        file = std::move(next);
    }
}

std::optional<PublishedRun> readPublishedRun() {
    const COMMON_YR::CancelHold hold;
    const FileDescriptor file = openToRead(kFile);
    std::string text(kMostBytes, '\0');
    const ssize_t count = file.valid() ? readFully(file.get(), text.data(), text.size()) : -1;
    if (count < 0 || flock(file.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(count));
    return runIn(text);
}

}  // namespace kavro::agent
