#include "base/escaped_text.h"

#include <gtest/gtest.h>

namespace {

using kavro::escaped;

TEST(EscapedText, printable_text_stays_as_it_is) {
    EXPECT_EQ(escaped("release/camera 1.2 ~{}'\""), "release/camera 1.2 ~{}'\"");
    EXPECT_EQ(escaped("Jörg, 東京, 🎥"), "Jörg, 東京, 🎥");
}

TEST(EscapedText, control_characters_show_as_numbers) {
    EXPECT_EQ(escaped("\x1b[2J\n\t\x7f"), "\\x1b[2J\\x0a\\x09\\x7f");
    EXPECT_EQ(escaped(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(escaped("\xc2\x9b"), "\\xc2\\x9b");
}

TEST(EscapedText, a_backslash_is_doubled_so_that_no_text_looks_like_a_number) {
    EXPECT_EQ(escaped("\\x1b"), "\\\\x1b");
}

TEST(EscapedText, characters_that_turn_the_direction_of_writing_show_as_numbers) {
    EXPECT_EQ(escaped("a\u202eb"), "a\\xe2\\x80\\xaeb");
}

TEST(EscapedText, bytes_that_are_no_utf8_show_as_numbers) {
    EXPECT_EQ(escaped("\xff"), "\\xff");
    EXPECT_EQ(escaped("\xc3"), "\\xc3");
    EXPECT_EQ(escaped("\xc3z"), "\\xc3z");
    EXPECT_EQ(escaped("\xc0\xaf"), "\\xc0\\xaf");
    EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(escaped("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

}  // namespace
