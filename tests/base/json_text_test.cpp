#include "base/json_text.h"

#include <gtest/gtest.h>

namespace {

using kavro::jsonLine;

TEST(JsonText, of_a_line_has_no_line_break) {
    Json::Value value;
    value["list"].append("one\ntwo");
    value["list"].append(1.5);
    EXPECT_EQ(jsonLine(value), R"({"list":["one\ntwo",1.5]})");
}

TEST(JsonText, is_ascii_whatever_the_texts_hold) {
    EXPECT_EQ(jsonLine(Json::Value("\x1b[2J J\xc3\xb6rg \xf0\x9f\x8e\xa5 \x7f")),
              R"("\u001b[2J J\u00f6rg \ud83c\udfa5 )"
              "\x7f\"");
    EXPECT_EQ(jsonLine(Json::Value(std::string("a\0b", 3))), R"("a\u0000b")");
}

TEST(JsonText, tells_bytes_that_are_no_utf8_as_the_character_for_that) {
    EXPECT_EQ(jsonLine(Json::Value("\xff|\xc3")), R"("\ufffd|\ufffd")");
    EXPECT_EQ(jsonLine(Json::Value("\xed\xa0\x80")), R"("\ufffd")");
    EXPECT_EQ(jsonLine(Json::Value("\xc3\"")).find_first_not_of("\\\"0123456789abcdefu\x02"),
              std::string::npos);
}

}  // namespace
