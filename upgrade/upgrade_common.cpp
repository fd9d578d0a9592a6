#include "upgrade/upgrade_common.h"

#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "upgrade/internal.h"

namespace {

constexpr const char* kSourceUnit = "upgrade/upgrade_common";

// The result codes of a read.
constexpr int kOptionAbsent = -2;
constexpr int kOptionNotInt = -3;
constexpr int kOptionNotString = -4;

// Configuration files are flat, so this is plenty. The parser recurses once a level, and it runs on threads with small
// stacks.
constexpr int kNestingLimit = 128;

// The document as far as the parser gets: an empty or damaged file just lacks the wanted member.
Json::Value parseFile(const std::string& file) {
    const std::string text = COMMON_YR::readFile2String(file.c_str());
    Json::CharReaderBuilder builder;
    builder["collectComments"] = true;
    builder["allowTrailingCommas"] = false;
    builder["skipBom"] = false;
    builder["stackLimit"] = kNestingLimit;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    } catch (const Json::Exception&) {
        // Nested too deeply to be one of ours; what comes before that is in root.
    }
    return root;
}

}  // namespace

int UPGRADE_COMM_read_config(std::string file, std::string option, CFG_DATA_TYPE_E type, void* value) {
    const Json::Value root = parseFile(file);
    if (!root.isObject() || !root.isMember(option)) {
        UPGRADE_ERROR("file '%s', has on option '%s'\n", file.c_str(), option.c_str());
        return kOptionAbsent;
    }
    const Json::Value& member = root[option];
    if (type == CFG_DATA_TYPE_INT) {
        if (!member.isInt()) {
            UPGRADE_ERROR("option '%s' not asInt\n", option.c_str());
            return kOptionNotInt;
        }
        *static_cast<int32_t*>(value) = member.asInt();
    } else if (type == CFG_DATA_TYPE_STRING) {
        if (!member.isString()) {
            UPGRADE_ERROR("option '%s' not asString\n", option.c_str());
            return kOptionNotString;
        }
        *static_cast<std::string*>(value) = member.asString();
    }
    return 0;
}

int UPGRADE_COMM_write_config(std::string file, std::string option, CFG_DATA_TYPE_E type, const void* value) {
    Json::Value root = parseFile(file);
    const bool setsMember = type == CFG_DATA_TYPE_INT || type == CFG_DATA_TYPE_STRING;
    if (setsMember && !root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    if (type == CFG_DATA_TYPE_INT) {
        root[option] = Json::Value(*static_cast<const int32_t*>(value));
    } else if (type == CFG_DATA_TYPE_STRING) {
        root[option] = Json::Value(*static_cast<const std::string*>(value));
    }
    std::string text = root.toStyledString();
    return static_cast<int>(COMMON_YR::writeFile(file.c_str(), text.data(), text.size(), false));
}

namespace kavro {

bool pathExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0 || errno == EIO;
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
