#include "platform/flash/file_boot_control.h"

#include <json/json.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include "common/utility.h"

namespace kavro {
namespace {

constexpr long kMaxStateBytes = 4096;
constexpr int kMaxNesting = 8;  // keeps the parser's recursion within a job's small stack
constexpr int kError = 1;

// Reads JSON text into an object. False for anything else.
bool parseObject(const std::string& text, Json::Value& root) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kMaxNesting;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject();
    } catch (const std::exception&) {  // nested too deeply
        return false;
    }
}

}  // namespace

FileBootControl::FileBootControl(std::string stateFile, SlotNames slotNames)
    : path(std::move(stateFile)), slots(std::move(slotNames)) {}

bool FileBootControl::beginWriting(const std::string& slot, std::string& error) {
    if (slot == slots.running) {
        error = "slot " + slot + " is running and must not be written";
        return false;
    }
    State state = load();
    if (state.bootSlot == slot) {
        state.bootSlot = slots.running;
    }
    if (state.pendingSlot == slot) {
        state.pendingSlot.clear();
    }
    state.complete[slot] = false;
    return save(state, error);
}

bool FileBootControl::finishWriting(const std::string& slot, std::string& error) {
    State state = load();
    state.complete[slot] = true;
    state.pendingSlot = slot;
    return save(state, error);
}

bool FileBootControl::activate(std::string& error) {
    State state = load();
    const std::string target = state.pendingSlot.empty() ? slots.other(state.bootSlot) : state.pendingSlot;
    if (!state.complete[target]) {
        error = "slot " + target + " holds no complete image (" + path + ")";
        return false;
    }
    state.bootSlot = target;
    state.pendingSlot.clear();
    return save(state, error);
}

FileBootControl::State FileBootControl::load() const {
    if (!COMMON_YR::isFileExist(path.c_str())) {
        return fallback();
    }
    const long size = COMMON_YR::getFileSize(path.c_str());
    State state;
    if (size < 0 || size > kMaxStateBytes || !parse(COMMON_YR::readFile2String(path.c_str()), state)) {
        printLog(kError, "UpgradeMpu: %s: damaged boot state; only the running slot %s counts as complete\n",
                 path.c_str(), slots.running.c_str());
        return fallback();
    }
    return state;
}

FileBootControl::State FileBootControl::fallback() const {
    return {slots.running, {{slots.running, true}, {slots.other(slots.running), false}}, ""};
}

bool FileBootControl::parse(const std::string& text, State& state) const {
    Json::Value root;
    if (!parseObject(text, root)) {
        return false;
    }
    const Json::Value& boot = root["boot_slot"];
    const Json::Value& pending = root["pending_slot"];
    const Json::Value& complete = root["complete"];
    if (!boot.isString() || !pending.isString() || !complete.isObject()) {
        return false;
    }
    state.bootSlot = boot.asString();
    state.pendingSlot = pending.asString();
    for (const std::string& slot : slots.names) {
        if (!complete[slot].isBool()) {
            return false;
        }
        state.complete[slot] = complete[slot].asBool();
    }
    const auto known = [this](const std::string& slot) {
        return std::find(slots.names.begin(), slots.names.end(), slot) != slots.names.end();
    };
    return known(state.bootSlot) && (state.pendingSlot.empty() || known(state.pendingSlot));
}

bool FileBootControl::save(const State& state, std::string& error) const {
    Json::Value root;
    root["boot_slot"] = state.bootSlot;
    root["pending_slot"] = state.pendingSlot;
    for (const auto& [slot, complete] : state.complete) {
        root["complete"][slot] = complete;
    }
    std::string text = root.toStyledString();
    if (COMMON_YR::writeFile(path.c_str(), text.data(), text.size(), false) !=
        static_cast<long>(text.size())) {
        error = path + ": the boot state cannot be written";
        return false;
    }
    return true;
}

}  // namespace kavro
