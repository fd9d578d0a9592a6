// JSON as the tool prints it: in ASCII, whatever the texts hold.
#pragma once

#include <json/value.h>

#include <string>

namespace upgradectl {

// On one line, without a line break.
std::string jsonLine(const Json::Value& value);

// Indented, for people; without a line break at the end.
std::string jsonText(const Json::Value& value);

// The text, or null for an empty one.
Json::Value textOrNull(const std::string& text);

}  // namespace upgradectl
