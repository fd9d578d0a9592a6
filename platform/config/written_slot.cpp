#include "platform/config/written_slot.h"

#include "base/hex_digit.h"
#include "common/utility.h"
#include "platform/config/json_object.h"

namespace kavro {
namespace {

constexpr std::size_t kSha256Digits = 64;

bool fail(const std::string& path, const std::string& what, std::string& error) {
    error = path + ": " + what;
    return false;
}

bool readContent(const Json::Value& part, PartContent& content) {
    if (!part.isObject() || !part["bytes"].isInt64() || !part["sha256"].isString()) {
        return false;
    }
    content = {part["bytes"].asInt64(), part["sha256"].asString()};
    return isPossible(content);
}

}  // namespace

bool isPossible(const PartContent& content) {
    return content.bytes > 0 && content.sha256.size() == kSha256Digits &&
           content.sha256.find_first_not_of(kLowerHexDigits) == std::string::npos;
}

bool readWrittenSlot(const std::string& path, std::optional<WrittenSlot>& record, std::string& error) {
    record.reset();
    if (!COMMON_YR::isFileExist(path.c_str())) {
        return true;
    }
    std::string fault;
    const Json::Value root = readJsonObject(path, fault);
    if (!fault.empty()) {
        return fail(path, fault, error);
    }
    WrittenSlot read;
    if (!root["slot"].isString()) {
        return fail(path, "names no \"slot\"", error);
    }
    read.slot = root["slot"].asString();
    for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
        if (!readContent(root[kSlotParts[part]], read.content[part])) {
            return fail(path, std::string("tells no size and SHA-256 of the ") + kSlotParts[part], error);
        }
    }
    record = read;
    return true;
}

bool saveWrittenSlot(const std::string& path, const WrittenSlot& record, std::string& error) {
    Json::Value root;
    root["slot"] = record.slot;
    for (std::size_t part = 0; part < kSlotParts.size(); ++part) {
        Json::Value& content = root[kSlotParts[part]];
        content["bytes"] = static_cast<Json::Int64>(record.content[part].bytes);
        content["sha256"] = record.content[part].sha256;
    }
    std::string text = root.toStyledString();
    return COMMON_YR::writeFile(path.c_str(), text.data(), text.size(), false) ==
               static_cast<long>(text.size()) ||
           fail(path, "the record of the written slot cannot be saved", error);
}

bool removeWrittenSlot(const std::string& path, std::string& error) {
    const int result = COMMON_YR::rmFile(path);
    return result == 0 || result == COMMON_YR::kErrNoFile ||
           fail(path, "the record of the written slot cannot be removed", error);
}

}  // namespace kavro
