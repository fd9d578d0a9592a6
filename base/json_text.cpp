#include "base/json_text.h"

#include <json/writer.h>

namespace kavro {

namespace {

constexpr int kDecimalPlaces = 3;

std::string written(const Json::Value& value, const char* indentation) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = indentation;
    builder["emitUTF8"] = false;
    builder["precisionType"] = "decimal";
    builder["precision"] = kDecimalPlaces;
    return Json::writeString(builder, value);
}

}  // namespace

std::string jsonLine(const Json::Value& value) {
    return written(value, "");
}

std::string jsonText(const Json::Value& value) {
    return written(value, "  ");
}

Json::Value textOrNull(const std::string& text) {
    return text.empty() ? Json::Value() : Json::Value(text);
}

}  // namespace kavro
