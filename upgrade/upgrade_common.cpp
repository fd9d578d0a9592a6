#include "upgrade/upgrade_common.h"

#include <json/json.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <future>

#include "upgrade/internal.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_common";

// The result codes of a read.
constexpr int kOptionAbsent = -2;
constexpr int kOptionNotInt = -3;
constexpr int kOptionNotString = -4;

// The parser, the writer and the end of a value recurse once a level. The parser follows 999 levels, which takes half a
// MiB, twice the stack of a job's thread.
constexpr std::ptrdiff_t kLevelsOnAnyStack = 64;
constexpr std::size_t kDeepStackBytes = 4 << 20;

using Task = std::packaged_task<void()>;

void* runTask(void* task) {
    (*static_cast<Task*>(task))();
    return nullptr;
}

// False when there is no thread to be had.
bool runOnDeepStack(Task& task) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kDeepStackBytes);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, runTask, &task) == 0;
    pthread_attr_destroy(&attributes);
    return started && pthread_join(thread, nullptr) == 0;
}

// Does work that parses the text: here, as long as it cannot nest deeply, since it has so few brackets. False, with
// nothing done, when there is no place to do it. Exceptions of the work pass through.
template <typename Work>
bool withRoomFor(const std::string& text, const Work& work) {
    const auto opens = [](char c) { return c == '[' || c == '{'; };
    if (std::count_if(text.begin(), text.end(), opens) <= kLevelsOnAnyStack) {
        work();
        return true;
    }
    const COMMON_YR::CancelHold hold;
    Task task(work);
    if (!runOnDeepStack(task)) {
        return false;
    }
    task.get_future().get();
    return true;
}

// The document as far as the parser gets: an empty or damaged text just lacks the wanted member.
Json::Value parse(const std::string& text) {
    Json::Value root;
    try {
        Json::Reader().parse(text, root, true);
    } catch (const Json::Exception&) {
        // Nested too deeply for the parser; what comes before that is in root.
    }
    return root;
}

int readOption(const std::string& text, const std::string& option, CFG_DATA_TYPE_E type, void* value) {
    const Json::Value root = parse(text);
    if (!root.isObject() || !root.isMember(option)) {
        return kOptionAbsent;
    }
    const Json::Value& member = root[option];
    if (type == CFG_DATA_TYPE_INT) {
        if (!member.isInt()) {
            return kOptionNotInt;
        }
        *static_cast<int32_t*>(value) = member.asInt();
    } else if (type == CFG_DATA_TYPE_STRING) {
        if (!member.isString()) {
            return kOptionNotString;
        }
        *static_cast<std::string*>(value) = member.asString();
    }
    return 0;
}

// The text of the document with the option set.
std::string writeOption(const std::string& text, const std::string& option, CFG_DATA_TYPE_E type,
                        const void* value) {
    Json::Value root = parse(text);
    const bool setsMember = type == CFG_DATA_TYPE_INT || type == CFG_DATA_TYPE_STRING;
    if (setsMember && !root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    if (type == CFG_DATA_TYPE_INT) {
        root[option] = Json::Value(*static_cast<const int32_t*>(value));
    } else if (type == CFG_DATA_TYPE_STRING) {
        root[option] = Json::Value(*static_cast<const std::string*>(value));
    }
    return root.toStyledString();
}

}  // namespace

int UPGRADE_COMM_read_config(std::string file, std::string option, CFG_DATA_TYPE_E type, void* value) {
    const std::string text = COMMON_YR::readFile2String(file.c_str());
    int result = kOptionAbsent;
    withRoomFor(text, [&] { result = readOption(text, option, type, value); });
    if (result == kOptionAbsent) {
        UPGRADE_ERROR("file '%s', has on option '%s'\n", file.c_str(), option.c_str());
    } else if (result == kOptionNotInt) {
        UPGRADE_ERROR("option '%s' not asInt\n", option.c_str());
    } else if (result == kOptionNotString) {
        UPGRADE_ERROR("option '%s' not asString\n", option.c_str());
    }
    return result;
}

int UPGRADE_COMM_write_config(std::string file, std::string option, CFG_DATA_TYPE_E type, const void* value) {
    const std::string text = COMMON_YR::readFile2String(file.c_str());
    std::string changed;
    if (!withRoomFor(text, [&] { changed = writeOption(text, option, type, value); })) {
        return -1;
    }
    return static_cast<int>(COMMON_YR::writeFile(file.c_str(), changed.data(), changed.size(), false));
}

namespace kavro {

bool pathExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

bool pathMayExist(const std::string& path) {
    return pathExists(path) || errno == EIO;
}

namespace {

bool isPlainCharacter(char c) {
    const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    return alphanumeric || (c != '\0' && std::strchr("/._-+=:,@%", c) != nullptr);
}

bool looksLikeOptionOrHost(const std::string& path) {
    return path.front() == '-' || path.substr(0, path.find('/')).find(':') != std::string::npos;
}

}  // namespace

std::string shellWord(const std::string& path) {
    if (path.empty()) {
        return "''";
    }
    std::string unmistakable = looksLikeOptionOrHost(path) ? "./" + path : path;
    if (std::all_of(unmistakable.begin(), unmistakable.end(), isPlainCharacter)) {
        return unmistakable;
    }
    std::string quoted = "'";
    for (const char c : unmistakable) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

}  // namespace kavro
