#include "package/release_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

namespace {

using kavro::ErrorCode;
using kavro::Result;
using kavro::package::formatReleaseList;
using kavro::package::ListKind;
using kavro::package::listKindOf;
using kavro::package::parseReleaseList;
using kavro::package::ReleaseList;
using testing::HasSubstr;

std::string digestOf(char digit) {
    return std::string(64, digit);
}

std::string lines(const std::string& epoch = "epoch 7\n", const std::string& notes = "note by the build\n") {
    return "release_list 1\n"
           "hardware 1\n"
           "main_processor 105\n"
           "microcontroller 8\n"
           "boot_loader 0\n" +
           epoch + "component bld_release.bin 10 " + digestOf('0') + "\ncomponent cv22_kavro_qz7.dtb 11 " +
           digestOf('1') + "\ncomponent ext4 134213632 " + digestOf('2') + "\ncomponent Image 13 " +
           digestOf('3') + "\ncomponent mcu_flash_app.s19 14 " + digestOf('a') +
           "\ncomponent mcu_flash_drv.s19 15 " + digestOf('f') + "\n" + notes;
}

std::string replaced(const std::string& part, const std::string& by) {
    std::string text = lines();
    const std::size_t at = text.find(part);
    EXPECT_NE(at, std::string::npos) << part;
    return text.replace(at, part.size(), by);
}

TEST(ReleaseListText, gives_every_field) {
    const ReleaseList list = parseReleaseList(lines()).value();
    EXPECT_EQ(list.version.hw, 1);
    EXPECT_EQ(list.version.mpu, 105);
    EXPECT_EQ(list.version.mcu, 8);
    EXPECT_EQ(list.version.bld, 0);
    EXPECT_EQ(list.epoch, 7U);
    ASSERT_EQ(list.components.size(), 6U);
    EXPECT_EQ(list.components[2].name, "ext4");
    EXPECT_EQ(list.components[2].bytes, 134213632U);
    EXPECT_EQ(list.components[2].sha256, digestOf('2'));
    EXPECT_EQ(list.notes, std::vector<std::string>{"by the build"});
}

TEST(ReleaseListText, needs_neither_epoch_nor_notes) {
    const ReleaseList list = parseReleaseList(lines("", "")).value();
    EXPECT_FALSE(list.epoch.has_value());
    EXPECT_TRUE(list.notes.empty());
}

TEST(ReleaseListText, is_the_same_after_reading_and_writing) {
    for (const std::string& text :
         {lines(), lines("", ""), lines("epoch 0\n"), lines("epoch 4294967295\n", "")}) {
        EXPECT_EQ(formatReleaseList(parseReleaseList(text).value()), text);
    }
}

TEST(ReleaseListText, is_known_by_its_first_line) {
    EXPECT_EQ(listKindOf(lines()), ListKind::kReleaseList);
    EXPECT_EQ(listKindOf("release_list 1"), ListKind::kReleaseList);
    EXPECT_EQ(listKindOf("release_list 2\nhardware 1\n"), ListKind::kOtherFormat);
    EXPECT_EQ(listKindOf("release_list 01\n"), ListKind::kOtherFormat);
    EXPECT_EQ(listKindOf("hardware 1\nrelease_list 1\n"), ListKind::kForeign);
    EXPECT_EQ(listKindOf("release_lists 1\n"), ListKind::kForeign);
    EXPECT_EQ(listKindOf(""), ListKind::kForeign);
}

struct WrongList {
    const char* name;
    std::string text;
    std::string fault;
};

void PrintTo(const WrongList& wrong, std::ostream* out) {
    *out << wrong.name;
}

class WrongReleaseList : public testing::TestWithParam<WrongList> {};

TEST_P(WrongReleaseList, is_refused_with_the_line) {
    const Result<ReleaseList> list = parseReleaseList(GetParam().text);
    ASSERT_FALSE(list.ok());
    EXPECT_EQ(list.error().code, ErrorCode::kRefused);
    EXPECT_THAT(list.error().text, HasSubstr(GetParam().fault));
    EXPECT_NE(list.error().next, "");
}

std::string notes(std::size_t count, std::size_t bytes) {
    std::string text;
    for (std::size_t note = 0; note < count; ++note) {
        text += "note " + std::string(bytes, 'n') + "\n";
    }
    return text;
}

const std::vector<WrongList> kWrongLists = {
    {"empty", "", "no release list of the format 1"},
    {"of_another_format", "release_list 2\n", "no release list of the format 1"},
    {"its_first_line_alone", "release_list 1\n", "ends where 'hardware' belongs"},
    {"cut_in_a_line", lines().substr(0, 20),
     "line 2 of the release list is 'hardw', where 'a line end' belongs"},
    {"without_the_last_line_end", lines("", "note x"), "where 'a line end' belongs"},
    {"with_carriage_returns", replaced("hardware 1\n", "hardware 1\r\n"), "line 2"},
    {"with_a_line_of_nothing", replaced("hardware 1\n", "hardware 1\n\n"), "line 3"},
    {"with_a_line_twice", replaced("hardware 1\n", "hardware 1\nhardware 1\n"),
     "line 3 of the release list is 'hardware 1', where 'main_processor' belongs"},
    {"with_an_unknown_line", replaced("epoch 7\n", "colour blue\n"),
     "'colour blue', where 'component bld_release.bin'"},
    {"with_an_epoch_twice", replaced("epoch 7\n", "epoch 7\nepoch 7\n"), "line 7"},
    {"with_a_version_of_four_digits", replaced("main_processor 105", "main_processor 1000"), "line 3"},
    {"with_a_negative_version", replaced("hardware 1", "hardware -1"), "line 2"},
    {"with_a_leading_zero", replaced("hardware 1", "hardware 01"), "line 2"},
    {"with_a_sign", replaced("hardware 1", "hardware +1"), "line 2"},
    {"with_two_blanks", replaced("hardware 1", "hardware  1"), "line 2"},
    {"with_a_blank_at_a_lines_end", replaced("hardware 1\n", "hardware 1 \n"), "line 2"},
    {"with_more_in_a_line", replaced("hardware 1\n", "hardware 1 2\n"), "line 2"},
    {"without_a_number", replaced("hardware 1", "hardware "), "line 2"},
    {"with_an_epoch_beyond_32_bits", replaced("epoch 7", "epoch 4294967296"), "line 6"},
    {"with_an_endless_number", replaced("epoch 7", "epoch " + std::string(100, '9')), "line 6"},
    {"with_a_component_larger_than_a_package", replaced("134213632", "134213633"), "line 9"},
    {"with_a_component_twice", replaced("component Image 13 ", "component ext4 13 "),
     "where 'component Image' belongs"},
    {"with_components_in_another_order", replaced("component Image", "component mcu_flash_app.s19"),
     "line 10"},
    {"that_names_itself", replaced("note by the build", "component version_list.acs 1 " + digestOf('0')),
     "where 'note' belongs"},
    {"with_a_digest_in_upper_case", replaced(digestOf('a'), digestOf('A')), "line 11"},
    {"with_a_digest_cut_short", replaced(digestOf('a'), digestOf('a').substr(1)), "line 11"},
    {"with_a_digest_that_is_too_long", replaced(digestOf('a'), digestOf('a') + "a"), "line 11"},
    {"with_an_empty_note", lines("", "note \n"), "where 'note' belongs"},
    {"with_a_note_of_control_characters", lines("", "note \x1b[2J\n"),
     "'note \\x1b[2J', where 'note' belongs"},
    {"with_a_long_note", lines("", notes(1, 201)), "where 'note' belongs"},
    {"with_many_notes", lines("", notes(65, 1)), "where 'the end' belongs"},
    {"with_many_bytes", lines("", notes(81, 200)), "more than 16384 bytes"},
};

INSTANTIATE_TEST_SUITE_P(ReleaseListText, WrongReleaseList, testing::ValuesIn(kWrongLists),
                         [](const testing::TestParamInfo<WrongList>& test) {
                             return std::string(test.param.name);
                         });

TEST(ReleaseListText, may_have_as_many_and_as_long_notes_as_there_is_room_for) {
    const std::string text = lines("", notes(64, 200));
    EXPECT_EQ(formatReleaseList(parseReleaseList(text).value()), text);
}

}  // namespace
