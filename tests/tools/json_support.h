// Reading the JSON that the tool prints.
#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sstream>
#include <string>
#include <vector>

namespace tool_test {

// A text that is no JSON fails the test.
inline Json::Value parsed(const std::string& text) {
    std::istringstream source(text);
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), source, &value, &errors)) << text << errors;
    return value;
}

// One object a line.
inline std::vector<Json::Value> eventsIn(const std::string& text) {
    std::vector<Json::Value> events;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(parsed(line));
    }
    return events;
}

}  // namespace tool_test
