#include "upgrade/upgrade_common.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/small_stack.h"

namespace {

using testing::ElementsAre;
using testsupport::exists;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::writeFile;

constexpr const char* kUnit = "upgrade/upgrade_common";
constexpr const char* kRead = "UPGRADE_COMM_read_config";
constexpr const char* kFile = "/config/options.json";
constexpr auto kNoType = static_cast<CFG_DATA_TYPE_E>(2);
constexpr int32_t kUntouched = 4711;
constexpr unsigned kDeepNesting = 100000;

Json::Value parsed(const std::string& path) {
    Json::Value root;
    std::istringstream text(readFile(path));
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &root, &errors))
        << path << ": " << errors;
    return root;
}

std::string repeated(const std::string& part, unsigned times) {
    std::string text;
    text.reserve(part.size() * times);
    for (unsigned i = 0; i < times; ++i) {
        text += part;
    }
    return text;
}

class Config : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        testsupport::emptyDevice();
        fake::reset();
    }

    // A read of an integer, with the target's value in `number` afterwards.
    int readInt(const std::string& option, const std::string& file = kFile) {
        return UPGRADE_COMM_read_config(file, option, CFG_DATA_TYPE_INT, &number);
    }
    int readString(const std::string& option, const std::string& file = kFile) {
        return UPGRADE_COMM_read_config(file, option, CFG_DATA_TYPE_STRING, &text);
    }
    static int writeInt(const std::string& option, int32_t value, const std::string& file = kFile) {
        return UPGRADE_COMM_write_config(file, option, CFG_DATA_TYPE_INT, &value);
    }
    static int writeString(const std::string& option, const std::string& value,
                           const std::string& file = kFile) {
        return UPGRADE_COMM_write_config(file, option, CFG_DATA_TYPE_STRING, &value);
    }
    static testing::AssertionResult loggedAbsent(const std::string& option, const std::string& file = kFile) {
        return fake::loggedError(kUnit, kRead, "file '" + file + "', has on option '" + option + "'\n");
    }

    int32_t number = kUntouched;
    std::string text = "untouched";
};

using ConfigRead = Config;
using ConfigWrite = Config;

TEST(ConfigTypes, are_integer_0_and_string_1) {
    EXPECT_EQ(static_cast<int>(CFG_DATA_TYPE_INT), 0);
    EXPECT_EQ(static_cast<int>(CFG_DATA_TYPE_STRING), 1);
}

TEST_F(ConfigRead, an_integer_is_stored_without_a_log_line) {
    writeFile(kFile, R"({"bld_version" : 1, "mpu_version" : 12})");
    EXPECT_EQ(readInt("mpu_version"), 0);
    EXPECT_EQ(number, 12);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigRead, a_string_is_stored_without_a_log_line) {
    writeFile(kFile, R"({"name" : "caf\u00e9 \"x\"", "empty" : ""})");
    EXPECT_EQ(readString("name"), 0);
    EXPECT_EQ(text, "caf\xc3\xa9 \"x\"");
    EXPECT_EQ(readString("empty"), 0);
    EXPECT_EQ(text, "");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigRead, an_option_of_a_file_that_does_not_exist_is_absent) {
    EXPECT_EQ(readInt("mpu_version", "/config/none.json"), -2);
    EXPECT_EQ(number, kUntouched);
    EXPECT_TRUE(loggedAbsent("mpu_version", "/config/none.json"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_FALSE(exists("/config/none.json"));
}

TEST_F(ConfigRead, an_absent_option_is_absent_for_every_type) {
    writeFile(kFile, R"({"hw_version" : 1})");
    EXPECT_EQ(readInt("hw"), -2);
    EXPECT_EQ(readString("hw_version2"), -2);
    EXPECT_EQ(UPGRADE_COMM_read_config(kFile, "other", kNoType, &number), -2);
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(loggedAbsent("hw"));
    EXPECT_TRUE(loggedAbsent("hw_version2"));
    EXPECT_TRUE(loggedAbsent("other"));
}

TEST_F(ConfigRead, a_string_is_no_integer_but_can_be_read_as_a_string) {
    writeFile(kFile, R"({"mpu_version" : "12"})");
    EXPECT_EQ(readInt("mpu_version"), -3);
    EXPECT_EQ(number, kUntouched);
    EXPECT_TRUE(fake::loggedError(kUnit, kRead, "option 'mpu_version' not asInt\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
    EXPECT_EQ(readString("mpu_version"), 0);
    EXPECT_EQ(text, "12");
    EXPECT_EQ(fake::log().lines().size(), 1U);
}

TEST_F(ConfigRead, an_integer_is_no_string) {
    writeFile(kFile, R"({"mpu_version" : 12})");
    EXPECT_EQ(readString("mpu_version"), -4);
    EXPECT_EQ(text, "untouched");
    EXPECT_TRUE(fake::loggedError(kUnit, kRead, "option 'mpu_version' not asString\n"));
    EXPECT_EQ(fake::log().lines().size(), 1U);
}

TEST_F(ConfigRead, members_of_other_types_are_neither_integer_nor_string) {
    writeFile(kFile, R"({"n" : null, "t" : true, "a" : [1], "o" : {"x" : 1}, "r" : 1.5})");
    for (const char* option : {"n", "t", "a", "o", "r"}) {
        EXPECT_EQ(readInt(option), -3) << option;
        EXPECT_EQ(readString(option), -4) << option;
        EXPECT_TRUE(fake::loggedError(kUnit, kRead, "option '" + std::string(option) + "' not asInt\n"));
        EXPECT_TRUE(fake::loggedError(kUnit, kRead, "option '" + std::string(option) + "' not asString\n"));
    }
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(text, "untouched");
}

TEST_F(ConfigRead, an_integer_outside_32_bits_is_no_integer) {
    for (const char* value : {"2147483648", "-2147483649", "4294967297", "9223372036854775808",
                              "-9223372036854775809", "99999999999999999999999", "1e300"}) {
        writeFile(kFile, std::string(R"({"v" : )") + value + "}");
        EXPECT_EQ(readInt("v"), -3) << value;
        EXPECT_EQ(number, kUntouched) << value;
    }
    EXPECT_EQ(fake::countErrors(kUnit, kRead, "option 'v' not asInt\n"), 7U);
}

TEST_F(ConfigRead, the_limits_of_32_bits_are_integers) {
    writeFile(kFile, R"({"max" : 2147483647, "min" : -2147483648})");
    EXPECT_EQ(readInt("max"), 0);
    EXPECT_EQ(number, std::numeric_limits<int32_t>::max());
    EXPECT_EQ(readInt("min"), 0);
    EXPECT_EQ(number, std::numeric_limits<int32_t>::min());
}

TEST_F(ConfigRead, without_a_type_only_the_presence_counts) {
    writeFile(kFile, R"({"n" : 12, "s" : "x", "a" : [1]})");
    for (const int type : {2, 3, -1, 1000}) {
        for (const char* option : {"n", "s", "a"}) {
            EXPECT_EQ(UPGRADE_COMM_read_config(kFile, option, static_cast<CFG_DATA_TYPE_E>(type), &number),
                      0);
        }
    }
    EXPECT_EQ(UPGRADE_COMM_read_config(kFile, "n", kNoType, nullptr), 0);
    EXPECT_EQ(number, kUntouched);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigRead, each_read_sees_the_file_as_it_is_at_that_moment) {
    writeFile(kFile, R"({"v" : 1})");
    EXPECT_EQ(readInt("v"), 0);
    writeFile(kFile, R"({"v" : 2})");
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 2);
    std::filesystem::remove(kFile);
    EXPECT_EQ(readInt("v"), -2);
}

TEST_F(ConfigRead, an_option_name_is_taken_as_it_stands) {
    writeFile(kFile, R"({"" : 1, "a.b" : 2, "a[0]" : 3, "%s%n" : 4, "a" : {"b" : 9}})");
    EXPECT_EQ(readInt(""), 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(readInt("a.b"), 0);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(readInt("a[0]"), 0);
    EXPECT_EQ(number, 3);
    EXPECT_EQ(readInt("%s%n"), 0);
    EXPECT_EQ(number, 4);
    EXPECT_EQ(readInt("%d%s"), -2);
    EXPECT_TRUE(loggedAbsent("%d%s"));
}

TEST_F(ConfigRead, the_last_of_two_members_of_one_name_counts) {
    writeFile(kFile, R"({"v" : 1, "v" : 2})");
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 2);
}

TEST_F(ConfigRead, a_number_with_an_integral_value_is_an_integer) {
    writeFile(kFile, R"({"v" : 5.0, "w" : 1e2})");
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(readInt("w"), 0);
    EXPECT_EQ(number, 100);
}

TEST_F(ConfigRead, comments_do_not_matter) {
    writeFile(kFile, "// versions\n{\n  /* main */ \"v\" : 3 // end\n}\n");
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 3);
}

TEST_F(ConfigRead, a_number_with_a_plus_sign_is_no_number) {
    writeFile(kFile, R"({"u" : 1, "v" : +1, "w" : 2})");
    EXPECT_EQ(readInt("u"), 0);
    EXPECT_LT(readInt("v"), 0);
    EXPECT_LT(readInt("w"), 0);
    EXPECT_EQ(number, 1);
}

// Documents of the wrong shape: nothing is found in them, and nothing worse happens.
const std::vector<std::string>& wrongShapes() {
    static const std::vector<std::string> texts{"",
                                                " \n",
                                                "[1, 2]",
                                                "[]",
                                                "[{\"v\" : 1}]",
                                                "5",
                                                "-1.5",
                                                "\"v\"",
                                                "\"\"",
                                                "true",
                                                "null",
                                                "{",
                                                "}",
                                                "[",
                                                "{\"v\"",
                                                "{\"",
                                                "{]",
                                                "no json at all",
                                                "'v' : 1",
                                                "<v>1</v>",
                                                std::string("\xff\xfe\0\1", 4)};
    return texts;
}

TEST_F(ConfigRead, a_document_of_the_wrong_shape_has_no_options) {
    for (const std::string& document : wrongShapes()) {
        SCOPED_TRACE(testing::PrintToString(document));
        fake::reset();
        writeFile(kFile, document);
        EXPECT_EQ(readInt("v"), -2);
        EXPECT_EQ(readString("v"), -2);
        EXPECT_EQ(UPGRADE_COMM_read_config(kFile, "v", kNoType, &number), -2);
        EXPECT_EQ(number, kUntouched);
        EXPECT_EQ(text, "untouched");
        EXPECT_EQ(fake::countErrors(kUnit, kRead, "file '" + std::string(kFile) + "', has on option 'v'\n"),
                  3U);
        EXPECT_EQ(fake::log().lines().size(), 3U);
        EXPECT_EQ(readFile(kFile), document);
    }
}

TEST_F(ConfigRead, a_document_behind_a_byte_order_mark_has_no_options) {
    writeFile(kFile, "\xef\xbb\xbf{\"v\" : 5}");
    EXPECT_EQ(readInt("v"), -2);
    EXPECT_EQ(number, kUntouched);
}

TEST_F(ConfigRead, a_member_that_was_cut_off_before_its_value_gives_a_result_code) {
    writeFile(kFile, "{\"v\" :");
    EXPECT_LT(readInt("v"), 0);
    EXPECT_LT(readString("v"), 0);
    EXPECT_EQ(number, kUntouched);
    EXPECT_EQ(text, "untouched");
}

TEST_F(ConfigWrite, a_document_of_the_wrong_shape_becomes_a_file_with_the_one_option) {
    for (const std::string& document : wrongShapes()) {
        SCOPED_TRACE(testing::PrintToString(document));
        writeFile(kFile, document);
        EXPECT_GT(writeInt("v", 5), 0);
        EXPECT_THAT(parsed(kFile).getMemberNames(), ElementsAre("v"));
        EXPECT_EQ(readInt("v"), 0);
        EXPECT_EQ(number, 5);

        writeFile(kFile, document);
        EXPECT_GT(writeString("v", "five"), 0);
        EXPECT_THAT(parsed(kFile).getMemberNames(), ElementsAre("v"));
        EXPECT_EQ(readString("v"), 0);
        EXPECT_EQ(text, "five");
    }
}

TEST_F(ConfigRead, an_option_before_the_end_of_a_truncated_document_is_as_good_as_the_parser_got) {
    writeFile(kFile, "{\n   \"bld_version\" : 2,\n   \"hw_version\" : 1,\n   \"mcu_ver");
    EXPECT_EQ(readInt("hw_version"), 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(readInt("mcu_version"), -2);
}

TEST_F(ConfigWrite, what_the_parser_got_of_a_truncated_document_is_written_back) {
    writeFile(kFile, "{\n   \"bld_version\" : 2,\n   \"hw_version\" : 1,\n   \"mcu_ver");
    EXPECT_GT(writeInt("mpu_version", 4), 0);
    const Json::Value root = parsed(kFile);
    EXPECT_EQ(root["bld_version"].asInt(), 2);
    EXPECT_EQ(root["hw_version"].asInt(), 1);
    EXPECT_EQ(root["mpu_version"].asInt(), 4);
    EXPECT_EQ(root.size(), 3U);
}

TEST_F(ConfigRead, every_truncation_of_a_document_gives_a_result_code) {
    const std::string whole = "{\n   \"a\" : [ 1, { \"b\" : \"c\\u00e9\" } ],\n   \"v\" : -12\n}\n";
    for (unsigned long length = 0; length <= whole.size(); ++length) {
        writeFile(kFile, whole.substr(0, length));
        const int result = readInt("v");
        EXPECT_TRUE(result == 0 || result == -2 || result == -3) << length;
    }
    EXPECT_EQ(number, -12);
}

TEST_F(ConfigRead, a_directory_has_no_options) {
    EXPECT_EQ(readInt("v", "/config"), -2);
    EXPECT_TRUE(loggedAbsent("v", "/config"));
}

TEST_F(ConfigRead, a_path_of_any_length_and_shape_has_no_options) {
    for (const std::string& path : {std::string(), std::string(4000, 'x'), "/config/" + std::string(300, 'y'),
                                    std::string("/config/a b'\"$(touch /config/bad)\n%s")}) {
        EXPECT_EQ(readInt("v", path), -2);
        EXPECT_TRUE(loggedAbsent("v", path));
    }
    EXPECT_FALSE(exists("/config/bad"));
}

// 100000 levels: more than any parser's recursion survives on a small stack.
const std::vector<std::pair<std::string, std::string>>& brackets() {
    static const std::vector<std::pair<std::string, std::string>> pairs{
        {"[", "]"}, {"{\"v\":", "}"}, {"[{\"v\":", "}]"}};
    return pairs;
}

TEST_F(Config, many_levels_give_result_codes_on_the_stack_of_a_job_thread) {
    for (const auto& [opening, closing] : brackets()) {
        SCOPED_TRACE(opening);
        writeFile(kFile, repeated(opening, kDeepNesting));
        int readResult = 0;
        int writeResult = 0;
        int readAgain = -1;
        ASSERT_TRUE(testsupport::runOnSmallStack([&] {
            readResult = readInt("v");
            writeResult = writeInt("v", 5);
            readAgain = readInt("v");
        }));
        EXPECT_TRUE(readResult == -2 || readResult == -3) << readResult;
        EXPECT_GT(writeResult, 0);
        EXPECT_EQ(readAgain, 0);
        EXPECT_EQ(number, 5);
    }
}

TEST_F(Config, many_levels_behind_a_good_member_give_result_codes) {
    for (const auto& [opening, closing] : brackets()) {
        SCOPED_TRACE(opening);
        writeFile(kFile, "{\"w\" : 1, \"x\" : " + repeated(opening, kDeepNesting));
        const int result = readInt("w");
        EXPECT_TRUE(result == 0 || result == -2) << result;
        EXPECT_GT(UPGRADE_COMM_write_config(kFile, "w", kNoType, nullptr), 0);
        EXPECT_GT(writeInt("w", 5), 0);
        EXPECT_EQ(readInt("w"), 0);
        EXPECT_EQ(number, 5);
    }
}

TEST_F(Config, many_levels_that_are_all_closed_give_result_codes) {
    for (const auto& [opening, closing] : brackets()) {
        SCOPED_TRACE(opening);
        writeFile(kFile, "{\"x\" : " + repeated(opening, kDeepNesting) + "1" +
                             repeated(closing, kDeepNesting) + ", \"w\" : 1}");
        int result = 1;
        ASSERT_TRUE(testsupport::runOnSmallStack([&] { result = readInt("w"); }));
        EXPECT_TRUE(result == 0 || result == -2) << result;
    }
}

// The parser follows 999 levels, the root's among them. Any thread reads what is behind them, one with a small stack too.
TEST_F(ConfigRead, nested_members_do_not_hide_an_option) {
    for (const auto& [opening, closing] : std::vector<std::pair<std::string, std::string>>{
             {"[", "]"}, {"{\"v\":", "}"}, {"[ // why\n", "]"}, {"{\"[[[\":", "}"}}) {
        for (const unsigned levels : {20U, 62U, 63U, 64U, 65U, 128U, 500U, 998U}) {
            SCOPED_TRACE(opening + " " + std::to_string(levels));
            writeFile(kFile, "{\"a\" : " + repeated(opening, levels) + "1" + repeated(closing, levels) +
                                 ", \"v\" : 3, \"s\" : \"text\"}");
            number = kUntouched;
            text = "untouched";
            ASSERT_TRUE(testsupport::runOnSmallStack([&] {
                EXPECT_EQ(readInt("v"), 0);
                EXPECT_EQ(readString("s"), 0);
                EXPECT_EQ(readInt("a"), -3);
            }));
            EXPECT_EQ(number, 3);
            EXPECT_EQ(text, "text");
        }
    }
}

TEST_F(ConfigRead, a_thousand_levels_are_not_followed) {
    writeFile(kFile, "{\"u\" : 2, \"v\" : " + repeated("[", 999) + "1" + repeated("]", 999) + ", \"w\" : 3}");
    EXPECT_EQ(readInt("u"), 0);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(readInt("w"), -2);
}

TEST_F(ConfigWrite, nested_members_are_kept) {
    for (const auto& [opening, closing] : brackets()) {
        constexpr unsigned kLevels = 499;
        SCOPED_TRACE(opening);
        const std::string nested = repeated(opening, kLevels) + "1" + repeated(closing, kLevels);
        writeFile(kFile, "{\"a\" : " + nested + ", \"v\" : 3}");
        ASSERT_TRUE(testsupport::runOnSmallStack([&] { EXPECT_GT(writeInt("v", 5), 0); }));
        EXPECT_EQ(readInt("v"), 0);
        EXPECT_EQ(number, 5);
        std::string written = readFile(kFile);
        written.erase(
            std::remove_if(written.begin(), written.end(), [](char c) { return std::isspace(c) != 0; }),
            written.end());
        EXPECT_EQ(written, "{\"a\":" + nested + ",\"v\":5}");
    }
}

TEST_F(ConfigRead, a_deep_document_is_read_on_a_thread_that_is_being_cancelled) {
    writeFile(kFile, "{\"a\" : " + repeated("[", 500) + repeated("]", 500) + ", \"v\" : 3}");
    int result = -1;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        result = readInt("v");
    });
    thread.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(number, 3);
}

TEST_F(ConfigWrite, one_member_changes_and_the_others_are_kept) {
    writeFile(kFile, R"({"bld_version" : 2, "hw_version" : 1, "mcu_version" : 7, "mpu_version" : 104})");
    EXPECT_GT(writeInt("mcu_version", 5), 0);
    const L_VERSION_T version = testsupport::readVersions(kFile);
    EXPECT_EQ(version.hw, 1);
    EXPECT_EQ(version.mpu, 104);
    EXPECT_EQ(version.mcu, 5);
    EXPECT_EQ(version.bld, 2);
    EXPECT_EQ(parsed(kFile).size(), 4U);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigWrite, members_of_any_type_are_kept) {
    writeFile(
        kFile,
        R"({"a" : [1, {"b" : null}], "big" : 9223372036854775807, "s" : "x\ny", "r" : 0.5, "t" : false})");
    EXPECT_GT(writeInt("v", 1), 0);
    const Json::Value root = parsed(kFile);
    EXPECT_EQ(root.size(), 6U);
    EXPECT_TRUE(root["a"][1]["b"].isNull());
    EXPECT_EQ(root["big"].asInt64(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(root["s"].asString(), "x\ny");
    EXPECT_EQ(root["r"].asDouble(), 0.5);
    EXPECT_TRUE(root["t"].isBool());
}

TEST_F(ConfigWrite, comments_are_kept) {
    writeFile(kFile, "{\n  // set by the factory\n  \"v\" : 3\n}\n");
    EXPECT_GT(writeInt("w", 4), 0);
    EXPECT_NE(readFile(kFile).find("// set by the factory"), std::string::npos) << readFile(kFile);
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(readInt("w"), 0);
}

TEST_F(ConfigWrite, a_missing_file_is_created_with_exactly_one_member) {
    EXPECT_GT(writeInt("mcu_version", -1), 0);
    const Json::Value root = parsed(kFile);
    EXPECT_THAT(root.getMemberNames(), ElementsAre("mcu_version"));
    EXPECT_EQ(root["mcu_version"].asInt(), -1);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigWrite, a_member_changes_its_type) {
    writeFile(kFile, R"({"v" : {"deep" : 1}})");
    EXPECT_GT(writeString("v", "7"), 0);
    EXPECT_EQ(readString("v"), 0);
    EXPECT_EQ(text, "7");
    EXPECT_GT(writeInt("v", 7), 0);
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 7);
}

TEST_F(ConfigWrite, the_result_is_the_number_of_bytes_in_the_file) {
    int result = writeInt("v", 5);
    EXPECT_EQ(result, testsupport::sizeOf(kFile));
    result = writeString("w", "text");
    EXPECT_EQ(result, testsupport::sizeOf(kFile));
    result = UPGRADE_COMM_write_config(kFile, "w", kNoType, nullptr);
    EXPECT_EQ(result, testsupport::sizeOf(kFile));
}

TEST_F(ConfigWrite, the_limits_of_32_bits_survive) {
    for (const int32_t value :
         {std::numeric_limits<int32_t>::min(), -1, 0, std::numeric_limits<int32_t>::max()}) {
        EXPECT_GT(writeInt("v", value), 0);
        EXPECT_EQ(readInt("v"), 0);
        EXPECT_EQ(number, value);
    }
}

TEST_F(ConfigWrite, any_text_survives) {
    for (const std::string& value :
         {std::string(), std::string("a\"b\\c/d\n\t\x01"), std::string("a\0b", 3),
          std::string("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"), std::string(20000, 'x')}) {
        EXPECT_GT(writeString("v", value), 0);
        EXPECT_EQ(readString("v"), 0);
        EXPECT_EQ(text, value);
    }
}

TEST_F(ConfigWrite, without_a_type_the_content_stays_and_gets_the_styled_layout) {
    writeFile(kFile, R"({"b":1,"a":"x"})");
    const int result = UPGRADE_COMM_write_config(kFile, "c", kNoType, &number);
    const std::string styled = readFile(kFile);
    EXPECT_EQ(result, static_cast<int>(styled.size()));
    EXPECT_EQ(styled, parsed(kFile).toStyledString());
    EXPECT_THAT(parsed(kFile).getMemberNames(), ElementsAre("a", "b"));
    EXPECT_EQ(parsed(kFile)["a"].asString(), "x");
    EXPECT_EQ(parsed(kFile)["b"].asInt(), 1);
    EXPECT_NE(styled, R"({"b":1,"a":"x"})");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigWrite, without_a_type_the_value_is_not_looked_at) {
    writeFile(kFile, R"({"v" : 3})");
    EXPECT_GT(UPGRADE_COMM_write_config(kFile, "v", kNoType, nullptr), 0);
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_EQ(number, 3);
}

TEST_F(ConfigWrite, without_a_type_an_array_stays_an_array) {
    writeFile(kFile, "[1, 2]");
    EXPECT_GT(UPGRADE_COMM_write_config(kFile, "v", kNoType, nullptr), 0);
    ASSERT_TRUE(parsed(kFile).isArray());
    EXPECT_EQ(parsed(kFile).size(), 2U);
}

TEST_F(ConfigWrite, members_are_sorted_and_the_text_ends_with_a_line_break) {
    EXPECT_GT(writeInt("b", 2), 0);
    EXPECT_GT(writeInt("a", 1), 0);
    const std::string styled = readFile(kFile);
    EXPECT_LT(styled.find("\"a\" : 1"), styled.find("\"b\" : 2")) << styled;
    EXPECT_EQ(styled.back(), '\n');
}

TEST_F(ConfigWrite, a_file_in_a_missing_directory_cannot_be_written) {
    EXPECT_LT(writeInt("v", 5, "/config/none/options.json"), 0);
    EXPECT_FALSE(exists("/config/none"));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ConfigWrite, a_directory_cannot_be_written) {
    std::filesystem::create_directory("/config/directory");
    EXPECT_LT(writeInt("v", 5, "/config/directory"), 0);
    EXPECT_TRUE(namesIn("/config/directory").empty());
}

TEST_F(ConfigWrite, nothing_but_the_file_is_left_in_its_directory) {
    std::filesystem::create_directory("/config/own");
    EXPECT_GT(writeInt("v", 5, "/config/own/a.json"), 0);
    EXPECT_GT(writeInt("v", 6, "/config/own/a.json"), 0);
    EXPECT_THAT(namesIn("/config/own"), ElementsAre("a.json"));
}

TEST_F(ConfigWrite, no_descriptor_stays_open) {
    const unsigned long before = testsupport::descriptorCount();
    EXPECT_GT(writeInt("v", 5), 0);
    EXPECT_EQ(readInt("v"), 0);
    EXPECT_LT(writeInt("v", 5, "/config/none/options.json"), 0);
    EXPECT_EQ(testsupport::descriptorCount(), before)
        << testing::PrintToString(testsupport::descriptorTargets());
}

// A run that is given up cancels its worker at any moment; a file that is being written is finished first.
TEST_F(ConfigWrite, a_cancel_that_is_pending_acts_only_after_the_write) {
    bool wrote = false;
    bool readBack = false;
    bool survived = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        wrote = writeInt("v", 5) > 0;
        readBack = readInt("v") == 0 && readInt("absent") == -2 && readString("v") == -4;
        pthread_testcancel();
        survived = true;
    });
    thread.join();
    EXPECT_TRUE(wrote);
    EXPECT_TRUE(readBack);
    EXPECT_FALSE(survived);
    EXPECT_EQ(number, 5);
    EXPECT_TRUE(fake::nothingLoggedWhileCancellable());
}

}  // namespace
