// split, getFileName, _xatoi, the name tables, the clock.

#include <gtest/gtest.h>

#include "common/utility.h"

namespace {

using COMMON_YR::kMapKeyEnd;
using COMMON_YR::MapKeyString;

using Pieces = std::list<std::string>;
using Bytes = std::vector<unsigned char>;

Pieces split(const char* text, const char* separator) {
    Pieces pieces;
    COMMON_YR::split(text, separator, pieces);
    return pieces;
}

TEST(Split, pieces_come_in_order) {
    EXPECT_EQ(split("a,bc,d", ","), (Pieces{"a", "bc", "d"}));
}

TEST(Split, empty_pieces_are_left_out) {
    EXPECT_EQ(split(",,a,,b,", ","), (Pieces{"a", "b"}));
}

TEST(Split, empty_and_null_text_have_no_pieces) {
    EXPECT_EQ(split("", ","), Pieces{});
    EXPECT_EQ(split(nullptr, ","), Pieces{});
    EXPECT_EQ(split(nullptr, nullptr), Pieces{});
    EXPECT_EQ(split(",,,", ","), Pieces{});
}

TEST(Split, text_without_separator_is_one_piece) {
    EXPECT_EQ(split("abc", ","), Pieces{"abc"});
}

TEST(Split, null_or_empty_separator_gives_one_piece) {
    EXPECT_EQ(split("a,b", ""), Pieces{"a,b"});
    EXPECT_EQ(split("a,b", nullptr), Pieces{"a,b"});
}

TEST(Split, separator_of_several_characters_is_matched_whole) {
    EXPECT_EQ(split("a::b:c::", "::"), (Pieces{"a", "b:c"}));
}

TEST(Split, pieces_are_appended) {
    Pieces pieces = {"x"};
    COMMON_YR::split("a,b", ",", pieces);
    EXPECT_EQ(pieces, (Pieces{"x", "a", "b"}));
}

TEST(GetFileName, part_behind_the_last_slash) {
    EXPECT_STREQ(COMMON_YR::getFileName("/a/b/c.txt"), "c.txt");
    EXPECT_STREQ(COMMON_YR::getFileName("c.txt"), "c.txt");
    EXPECT_STREQ(COMMON_YR::getFileName("/a/"), "");
    EXPECT_STREQ(COMMON_YR::getFileName(""), "");
}

TEST(GetFileName, result_points_into_the_path) {
    const char path[] = "/a/b";
    EXPECT_EQ(COMMON_YR::getFileName(path), path + 3);
}

TEST(GetFileName, null_path_gives_the_empty_text) {
    EXPECT_STREQ(COMMON_YR::getFileName(nullptr), "");
}

TEST(Xatoi, digits_of_both_cases_are_converted_in_order) {
    Bytes bytes;
    EXPECT_TRUE(COMMON_YR::_xatoi("00fFA9b0", bytes));
    EXPECT_EQ(bytes, (Bytes{0x00, 0xFF, 0xA9, 0xB0}));
}

TEST(Xatoi, bytes_are_replaced) {
    Bytes bytes = {1, 2, 3};
    EXPECT_TRUE(COMMON_YR::_xatoi("07", bytes));
    EXPECT_EQ(bytes, Bytes{7});
}

TEST(Xatoi, other_characters_at_every_place_are_refused_and_bytes_stay) {
    const Bytes before = {9};
    for (const char other : {'g', 'G', ' ', '/', ':', '@', '`', '-', '+', 'x', '\0', '\xFF'}) {
        for (std::size_t place = 0; place < 8; ++place) {
            std::string text = "12345678";
            text[place] = other;
            Bytes bytes = before;
            EXPECT_FALSE(COMMON_YR::_xatoi(text, bytes)) << text;
            EXPECT_EQ(bytes, before);
        }
    }
}

TEST(Xatoi, odd_number_of_digits_is_refused) {
    Bytes bytes = {9};
    EXPECT_FALSE(COMMON_YR::_xatoi("123", bytes));
    EXPECT_EQ(bytes, Bytes{9});
}

constexpr MapKeyString kTable[] = {
    {4, "four"}, {-1, "minus"}, {4, "second four"}, {7, "four"}, {kMapKeyEnd, ""}};

TEST(GetKeyString, text_of_the_first_row_with_the_key) {
    EXPECT_STREQ(COMMON_YR::getKeyString(4, kTable), "four");
    EXPECT_STREQ(COMMON_YR::getKeyString(-1, kTable), "minus");
}

TEST(GetKeyString, key_without_row_is_unknown) {
    EXPECT_STREQ(COMMON_YR::getKeyString(5, kTable), "unknown");
    EXPECT_STREQ(COMMON_YR::getKeyString(0, nullptr), "unknown");
}

TEST(GetKeyString, key_of_the_last_row_is_unknown) {
    EXPECT_STREQ(COMMON_YR::getKeyString(kMapKeyEnd, kTable), "unknown");
}

TEST(GetStringKey, key_of_the_first_row_with_the_text) {
    int key = 99;
    EXPECT_TRUE(COMMON_YR::getStringKey("four", key, kTable));
    EXPECT_EQ(key, 4);
    EXPECT_TRUE(COMMON_YR::getStringKey("minus", key, kTable));
    EXPECT_EQ(key, -1);
}

TEST(GetStringKey, key_is_kept_when_no_row_matches) {
    int key = 99;
    EXPECT_FALSE(COMMON_YR::getStringKey("fou", key, kTable));
    EXPECT_FALSE(COMMON_YR::getStringKey("four ", key, kTable));
    EXPECT_FALSE(COMMON_YR::getStringKey("Four", key, kTable));
    EXPECT_FALSE(COMMON_YR::getStringKey(nullptr, key, kTable));
    EXPECT_FALSE(COMMON_YR::getStringKey("four", key, nullptr));
    EXPECT_EQ(key, 99);
}

TEST(GetStringKey, last_row_is_no_match_for_the_empty_text) {
    int key = 99;
    EXPECT_FALSE(COMMON_YR::getStringKey("", key, kTable));
    EXPECT_EQ(key, 99);
}

TEST(GetCommonErrCode, missing_file_has_a_text_of_its_own) {
    EXPECT_STREQ(COMMON_YR::getCommonErrCode(-2989), "file not exist");
    EXPECT_STREQ(COMMON_YR::getCommonErrCode(0), "success");
    EXPECT_STREQ(COMMON_YR::getCommonErrCode(-1), "failed");
    EXPECT_STREQ(COMMON_YR::getCommonErrCode(-2147483647), "failed");
}

TEST(Clock, never_goes_back_and_shows_fractions) {
    double before = glbGetCurTickMs();
    EXPECT_GT(before, 0);
    bool fraction = false;
    for (int i = 0; i < 1000; ++i) {
        const double now = glbGetCurTickMs();
        ASSERT_GE(now, before);
        fraction = fraction || now != static_cast<double>(static_cast<long long>(now));
        before = now;
    }
    EXPECT_TRUE(fraction);
}

}  // namespace
