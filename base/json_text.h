// JSON as the programs write it: in ASCII, whatever the texts hold. What is no UTF-8 in them becomes U+FFFD.
#pragma once

#include <json/value.h>

#include <string>

namespace kavro {

// On one line, without a line break.
std::string jsonLine(const Json::Value& value);

// Indented, for people; without a line break at the end.
std::string jsonText(const Json::Value& value);

// The text, or null for an empty one.
Json::Value textOrNull(const std::string& text);

}  // namespace kavro
