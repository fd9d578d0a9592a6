// The trailer of a package: where its fields lie, which texts count as numbers, and what happens to a block
// that no packer would write.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "common/utility.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_package.h"
#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/package_services.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace {

using package_services::errorShape;
using package_services::infoShape;
using package_services::logShape;
using testsupport::hexText;
using testsupport::kTrailerBytes;
using testsupport::Trailer;

using Lines = std::vector<std::string>;

constexpr const char* kUnit = "upgrade/upgrade_proc_pkg";
constexpr const char* kFunction = "read_info_form_pkg";
constexpr const char* kPubkey = "/tmp/pubkey";
constexpr const char* kPackage = "/firmware/upgrade.pkg";

// What lies in front of the fields behind the key, without the key.
constexpr unsigned long kFixedBytes = 114;
constexpr unsigned long kBiggestKey = kTrailerBytes - kFixedBytes;
constexpr unsigned long kBranchAt = 122;

std::string readError(const std::string& message) {
    return errorShape(kUnit, kFunction, message);
}

std::string lengthError(const std::string& length, const std::string& limit) {
    return readError("_xatoi err, _pkg_file_len 0x" + length + " should be 0x0 ~ 0x" + limit + "\n");
}

std::string keyLengthError(const std::string& length) {
    return readError("pubkey_len " + length + " invalid\n");
}

const std::string kVersionError = readError("convert version failed;\n");
const std::string kKeyFileError = readError("write pubkey file failed;\n");
const std::string kNoBranch = infoShape("convert branchNr failed;\n");
const std::string kNoUser = infoShape("convert userNr failed;\n");

// A text of that length in which every byte tells its place.
std::string counting(unsigned long length) {
    std::string text;
    for (unsigned long i = 0; i < length; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    return text;
}

class PackageTrailer : public testing::Test {
  protected:
    PackageTrailer() {
        package_services::reset();
        trailer.payloadLength = hexText(payload.size());
        trailer.md5 = "0123456789abcdef0123456789abcdef";
        setKey("-----KEY-----\n");
        setBranch("main");
        setUser("builder");
    }
    ~PackageTrailer() override { package_services::reset(); }

    void setKey(const std::string& key) {
        trailer.key = key;
        trailer.keyLength = hexText(key.size());
    }
    void setBranch(const std::string& branch) {
        trailer.branch = branch;
        trailer.branchLength = hexText(branch.size());
    }
    void setUser(const std::string& user) {
        trailer.user = user;
        trailer.userLength = hexText(user.size());
    }

    int readFrom(const std::string& path) { return read_info_form_pkg(info, path); }
    int readBlock(const std::string& block) {
        testsupport::writeFile(kPackage, payload + block);
        return readFrom(kPackage);
    }
    int read() { return readBlock(trailer.block()); }

    std::string branch() const { return {info.branch, sizeof info.branch}; }
    std::string user() const { return {info.user, sizeof info.user}; }
    static std::string field(const std::string& text) {
        std::string padded = text;
        padded.resize(128, '\0');
        return padded;
    }

    std::string payload = std::string(100, 'P');
    Trailer trailer;
    _UPGRADE_PKG_T info;
};

TEST_F(PackageTrailer, new_record_is_zero_filled) {
    EXPECT_EQ(info.pkg_file_len, 0U);
    EXPECT_EQ(std::string(info.md5, sizeof info.md5), std::string(33, '\0'));
    EXPECT_EQ(info.pubkey_len, 0U);
    EXPECT_EQ(info.pubkey_file, "");
    EXPECT_EQ(std::string(info.stamp, sizeof info.stamp), std::string(15, '\0'));
    EXPECT_EQ(std::string(info.ident, sizeof info.ident), std::string(41, '\0'));
    EXPECT_EQ(info.version.hw, 0);
    EXPECT_EQ(info.version.mpu, 0);
    EXPECT_EQ(info.version.mcu, 0);
    EXPECT_EQ(info.version.bld, 0);
    EXPECT_EQ(branch(), field(""));
    EXPECT_EQ(user(), field(""));
}

TEST_F(PackageTrailer, every_field_is_read_without_a_log_line) {
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(info.pkg_file_len, 100U);
    EXPECT_STREQ(info.md5, "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(info.pubkey_len, 14U);
    EXPECT_EQ(info.pubkey_file, kPubkey);
    EXPECT_STREQ(info.stamp, "20260101120000");
    EXPECT_STREQ(info.ident, "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(info.version.hw, 1);
    EXPECT_EQ(info.version.mpu, 2);
    EXPECT_EQ(info.version.mcu, 3);
    EXPECT_EQ(info.version.bld, 4);
    EXPECT_EQ(branch(), field("main"));
    EXPECT_EQ(user(), field("builder"));
    EXPECT_EQ(testsupport::readFile(kPubkey), "-----KEY-----\n");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, package_of_the_full_size_is_read) {
    testsupport::TestPackage package;
    package.setVersions(11, 105, 8, 3).writeTo(kPackage);
    EXPECT_EQ(readFrom(kPackage), 0);
    EXPECT_EQ(info.pkg_file_len, package.payloadBytes());
    EXPECT_EQ(info.md5, package.trailer().md5);
    EXPECT_EQ(testsupport::readFile(kPubkey), package.trailer().key);
    EXPECT_EQ(info.version.mpu, 105);
    EXPECT_STREQ(info.branch, "main");
    EXPECT_STREQ(info.user, "builder");
}

TEST_F(PackageTrailer, reading_leaves_the_package_as_it_is) {
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(testsupport::readFile(kPackage), payload + trailer.block());
}

TEST_F(PackageTrailer, reading_leaves_no_descriptor_open) {
    EXPECT_EQ(read(), 0);
    const unsigned long before = testsupport::descriptorCount();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(read(), 0);
    }
    EXPECT_EQ(testsupport::descriptorCount(), before);
}

// --- the file

TEST_F(PackageTrailer, missing_file_is_named) {
    EXPECT_EQ(readFrom("/firmware/none.pkg"), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '/firmware/none.pkg' not exist!\n")});
}

TEST_F(PackageTrailer, file_about_which_storage_gives_no_answer_is_a_missing_file) {
    const upgradetest::UnansweredPath unanswered(kPackage);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '/firmware/upgrade.pkg' not exist!\n")});
}

TEST_F(PackageTrailer, empty_path_is_a_missing_file) {
    EXPECT_EQ(readFrom(""), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '' not exist!\n")});
}

TEST_F(PackageTrailer, dangling_link_is_a_missing_file) {
    std::filesystem::create_symlink("/firmware/nowhere", "/firmware/link");
    EXPECT_EQ(readFrom("/firmware/link"), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '/firmware/link' not exist!\n")});
}

TEST_F(PackageTrailer, link_to_a_package_is_followed) {
    testsupport::writeFile("/firmware/real", payload + trailer.block());
    std::filesystem::create_symlink("real", "/firmware/link");
    EXPECT_EQ(readFrom("/firmware/link"), 0);
    EXPECT_STREQ(info.branch, "main");
}

TEST_F(PackageTrailer, missing_file_clears_the_three_texts_and_nothing_else) {
    std::memset(info.md5, 'x', sizeof info.md5);
    std::memset(info.stamp, 'x', sizeof info.stamp);
    std::memset(info.ident, 'x', sizeof info.ident);
    std::memset(info.branch, 'x', sizeof info.branch);
    info.pkg_file_len = 7;
    info.pubkey_file = "elsewhere";
    EXPECT_EQ(readFrom("/firmware/none.pkg"), -1);
    EXPECT_EQ(std::string(info.md5, sizeof info.md5), std::string(33, '\0'));
    EXPECT_EQ(std::string(info.stamp, sizeof info.stamp), std::string(15, '\0'));
    EXPECT_EQ(std::string(info.ident, sizeof info.ident), std::string(41, '\0'));
    EXPECT_EQ(branch(), std::string(128, 'x'));
    EXPECT_EQ(info.pkg_file_len, 7U);
    EXPECT_EQ(info.pubkey_file, "elsewhere");
}

TEST_F(PackageTrailer, empty_file_is_too_small) {
    testsupport::writeFile(kPackage, "");
    EXPECT_EQ(readFrom(kPackage), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg_file_size 0 failed!\n")});
}

TEST_F(PackageTrailer, file_of_4095_bytes_is_too_small) {
    testsupport::writeFile(kPackage, trailer.block().substr(1));
    EXPECT_EQ(readFrom(kPackage), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg_file_size 4095 failed!\n")});
    EXPECT_FALSE(testsupport::exists(kPubkey));
}

TEST_F(PackageTrailer, file_of_4096_bytes_with_an_empty_payload_is_read) {
    payload.clear();
    trailer.payloadLength = "00000000";
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(info.pkg_file_len, 0U);
    EXPECT_STREQ(info.user, "builder");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, file_of_4096_bytes_has_no_room_for_a_payload) {
    payload.clear();
    trailer.payloadLength = "00000001";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("1", "0")});
}

TEST_F(PackageTrailer, failed_size_query_counts_as_too_small) {
    std::filesystem::create_directory("/firmware/directory");
    const long size = COMMON_YR::getFileSize("/firmware/directory");
    ASSERT_LT(size, 0);
    EXPECT_EQ(readFrom("/firmware/directory"), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg_file_size " + std::to_string(size) + " failed!\n")});
}

TEST_F(PackageTrailer, short_read_fails) {
    for (const long bytes : {4095L, 0L, -1L}) {
        package_services::reset();
        package_services::letReadsGive(bytes);
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(logShape(), Lines{readError("read append info failed;\n")}) << bytes;
        EXPECT_FALSE(testsupport::exists(kPubkey));
    }
}

TEST_F(PackageTrailer, awkward_paths_are_plain_file_names) {
    for (const std::string& path : package_services::awkwardPaths("/firmware")) {
        testsupport::writeFile(path, payload + trailer.block());
        EXPECT_EQ(readFrom(path), 0) << path;
        EXPECT_EQ(readFrom(path + ".none"), -1);
        EXPECT_EQ(logShape(), Lines{readError("pkg '" + path + ".none' not exist!\n")});
        package_services::reset();
    }
}

TEST_F(PackageTrailer, path_of_4000_characters_is_read_and_named_whole) {
    const std::string path = package_services::longPath("/firmware", 4000);
    ASSERT_EQ(path.size(), 4000U);
    EXPECT_EQ(readFrom(path), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '" + path + "' not exist!\n")});
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    testsupport::writeFile(path, payload + trailer.block());
    EXPECT_EQ(readFrom(path), 0);
}

TEST_F(PackageTrailer, path_beyond_the_systems_limit_is_a_missing_file) {
    const std::string path = "/firmware/" + std::string(5000, 'x');
    EXPECT_EQ(readFrom(path), -1);
    EXPECT_EQ(logShape(), Lines{readError("pkg '" + path + "' not exist!\n")});
}

// --- the payload's length

TEST_F(PackageTrailer, payload_up_to_the_trailer_is_accepted) {
    trailer.payloadLength = "00000064";
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(info.pkg_file_len, 100U);
}

TEST_F(PackageTrailer, payload_one_byte_longer_is_refused_with_the_range) {
    trailer.payloadLength = "00000065";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("65", "64")});
    EXPECT_EQ(info.pkg_file_len, 0x65U) << "a field already filled keeps its value";
    EXPECT_EQ(info.md5[0], '\0');
}

TEST_F(PackageTrailer, payload_shorter_than_the_room_is_accepted) {
    for (const char* length : {"00000000", "00000001", "00000063"}) {
        trailer.payloadLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(info.pkg_file_len, std::stoul(length, nullptr, 16));
    }
}

TEST_F(PackageTrailer, payload_length_is_unsigned) {
    trailer.payloadLength = "FFFFFFFF";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("ffffffff", "64")});
    package_services::reset();
    trailer.payloadLength = "80000000";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("80000000", "64")});
}

TEST_F(PackageTrailer, range_of_a_128_mib_package_ends_in_front_of_its_trailer) {
    testsupport::TestPackage package;
    package.editTrailer([](Trailer& fields) { fields.payloadLength = "08000000"; }).writeTo(kPackage);
    EXPECT_EQ(readFrom(kPackage), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("8000000", "7fff000")});
}

TEST_F(PackageTrailer, range_of_a_file_beyond_4_gib_is_shown_in_32_bits) {
    testsupport::TestPackage package;
    package.setTotalSize(0x100000010UL + kTrailerBytes)
        .editTrailer([](Trailer& fields) { fields.payloadLength = "0000000g"; })
        .writeTo(kPackage);
    EXPECT_EQ(readFrom(kPackage), -1);
    EXPECT_EQ(logShape(), Lines{lengthError("0", "10")});
}

TEST_F(PackageTrailer, length_below_a_file_beyond_4_gib_is_accepted) {
    testsupport::TestPackage package;
    package.setTotalSize(0x100000010UL + kTrailerBytes)
        .editTrailer([](Trailer& fields) { fields.payloadLength = "FFFFFFFF"; })
        .writeTo(kPackage);
    EXPECT_EQ(readFrom(kPackage), 0);
    EXPECT_EQ(info.pkg_file_len, 0xFFFFFFFFU);
}

TEST_F(PackageTrailer, length_digits_may_have_either_case) {
    payload.assign(0xabc, 'P');
    for (const char* length : {"00000ABC", "00000abc", "00000aBc"}) {
        trailer.payloadLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(info.pkg_file_len, 0xabcU) << length;
    }
}

const std::vector<std::string>& notEightHexDigits() {
    static const std::vector<std::string> texts{
        "      10",        "10      ", "\t0000010",
        "\n0000010",       "0x000010", "0X000010",
        "-0000010",        "+0000010", "0000001g",
        "G0000010",        "00000:10", "0000/010",
        "0000001@",        "0000001`", "zzzzzzzz",
        "        ",        "0000 010", "000,0010",
        std::string(8, 0), "000010h ", std::string("10\0\0\0\0\0\0", 8)};
    return texts;
}

TEST_F(PackageTrailer, payload_length_that_is_not_eight_hexadecimal_digits_is_refused) {
    for (const std::string& text : notEightHexDigits()) {
        ASSERT_EQ(text.size(), 8U);
        package_services::reset();
        trailer.payloadLength = text;
        EXPECT_EQ(read(), -1) << testing::PrintToString(text);
        EXPECT_EQ(logShape(), Lines{lengthError("0", "64")}) << testing::PrintToString(text);
        EXPECT_EQ(info.pkg_file_len, 0U);
    }
    EXPECT_FALSE(testsupport::exists(kPubkey));
}

TEST_F(PackageTrailer, failed_conversion_leaves_the_payload_length_as_it_was) {
    info.pkg_file_len = 77;
    trailer.payloadLength = "no digit";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(info.pkg_file_len, 77U);
    EXPECT_EQ(logShape(), Lines{lengthError("4d", "64")});
}

// --- digest, key, stamp, ident

TEST_F(PackageTrailer, digest_is_copied_as_it_stands) {
    trailer.md5 = "ABCDEF no digits at all xyz \t\x7f\x80\xff\n";
    trailer.md5.resize(32, '!');
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(std::string(info.md5, sizeof info.md5), trailer.md5 + '\0');
}

TEST_F(PackageTrailer, key_is_written_byte_by_byte) {
    std::string key;
    for (int i = 0; i < 256; ++i) {
        key += static_cast<char>(i);
    }
    setKey(key);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(testsupport::readFile(kPubkey), key);
    EXPECT_EQ(info.pubkey_len, 256U);
    EXPECT_STREQ(info.user, "builder");
}

TEST_F(PackageTrailer, empty_key_makes_an_empty_file) {
    setKey("");
    EXPECT_EQ(read(), 0);
    EXPECT_TRUE(testsupport::exists(kPubkey));
    EXPECT_EQ(testsupport::readFile(kPubkey), "");
    EXPECT_STREQ(info.stamp, "20260101120000");
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, key_file_holds_the_key_of_the_package_read_last) {
    setKey(counting(900));
    EXPECT_EQ(read(), 0);
    setKey("short");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(testsupport::readFile(kPubkey), "short");
}

TEST_F(PackageTrailer, key_length_that_is_not_eight_hexadecimal_digits_is_refused) {
    testsupport::writeFile(kPubkey, "the key before");
    for (const std::string& text : notEightHexDigits()) {
        package_services::reset();
        trailer.keyLength = text;
        EXPECT_EQ(read(), -1) << testing::PrintToString(text);
        EXPECT_EQ(logShape(), Lines{keyLengthError("0")}) << testing::PrintToString(text);
        EXPECT_EQ(info.pubkey_len, 0U);
        EXPECT_EQ(info.pubkey_file, "");
    }
    EXPECT_STREQ(info.md5, "0123456789abcdef0123456789abcdef") << "a field already filled keeps its value";
    EXPECT_EQ(testsupport::readFile(kPubkey), "the key before");
}

TEST_F(PackageTrailer, failed_conversion_leaves_the_key_length_as_it_was) {
    info.pubkey_len = 0xFFFFFFFE;
    trailer.keyLength = "no digit";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{keyLengthError("-2")});
}

TEST_F(PackageTrailer, key_length_digits_may_have_either_case) {
    setKey(counting(0xbc));
    for (const char* length : {"000000BC", "000000bc", "000000Bc"}) {
        trailer.keyLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(info.pubkey_len, 0xbcU) << length;
    }
}

TEST_F(PackageTrailer, biggest_key_leaves_room_for_the_version_alone) {
    setKey(counting(kBiggestKey));
    EXPECT_EQ(trailer.block().substr(kTrailerBytes - 12), "001002003004");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(testsupport::readFile(kPubkey), counting(kBiggestKey));
    EXPECT_STREQ(info.stamp, "20260101120000");
    EXPECT_STREQ(info.ident, "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(info.version.hw, 1);
    EXPECT_EQ(info.version.bld, 4);
    EXPECT_EQ(branch(), field(""));
    EXPECT_EQ(logShape(), Lines{kNoBranch});
}

TEST_F(PackageTrailer, biggest_key_with_branch_and_user_is_read_whole) {
    setKey(counting(kBiggestKey - 8 - 4 - 8 - 7));
    EXPECT_EQ(trailer.block().substr(kTrailerBytes - 7), "builder");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field("main"));
    EXPECT_EQ(user(), field("builder"));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, key_that_leaves_no_room_for_the_version_is_refused) {
    const std::vector<std::pair<std::string, std::string>> lengths{{hexText(kBiggestKey + 1), "3983"},
                                                                   {hexText(4033), "4033"},
                                                                   {hexText(4034), "4034"},
                                                                   {hexText(4047), "4047"},
                                                                   {hexText(4048), "4048"},
                                                                   {hexText(4049), "4049"},
                                                                   {hexText(4096), "4096"},
                                                                   {"7FFFFFFF", "2147483647"},
                                                                   {"7FFFFFD0", "2147483600"},
                                                                   {"80000000", "-2147483648"},
                                                                   {"FFFFFFD0", "-48"},
                                                                   {"FFFFFFFF", "-1"},
                                                                   {"FFFFFF9A", "-102"},
                                                                   {"FFFFF000", "-4096"}};
    testsupport::writeFile(kPubkey, "the key before");
    for (const auto& [length, shown] : lengths) {
        package_services::reset();
        setKey(counting(kTrailerBytes));
        trailer.keyLength = length;
        EXPECT_EQ(read(), -1) << length;
        EXPECT_EQ(logShape(), Lines{keyLengthError(shown)});
        EXPECT_EQ(testsupport::readFile(kPubkey), "the key before");
    }
}

TEST_F(PackageTrailer, key_that_cannot_be_written_does_not_fail_the_read) {
    std::filesystem::create_directory(kPubkey);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(logShape(), Lines{kKeyFileError});
    EXPECT_EQ(info.pubkey_file, kPubkey);
    EXPECT_EQ(info.version.bld, 4);
    EXPECT_STREQ(info.user, "builder");
}

TEST_F(PackageTrailer, stamp_and_ident_are_copied_as_they_stand) {
    trailer.stamp = "\x01\xffstamp\n%s%n \t";
    trailer.stamp.resize(14, '~');
    trailer.ident = std::string("with\0nul", 8);
    trailer.ident.resize(40, '~');
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(std::string(info.stamp, sizeof info.stamp), trailer.stamp + '\0');
    EXPECT_EQ(std::string(info.ident, sizeof info.ident), trailer.ident + '\0');
}

// --- the version

void expectVersion(const _UPGRADE_PKG_T& info, int hw, int mpu, int mcu, int bld) {
    EXPECT_EQ(info.version.hw, hw);
    EXPECT_EQ(info.version.mpu, mpu);
    EXPECT_EQ(info.version.mcu, mcu);
    EXPECT_EQ(info.version.bld, bld);
}

TEST_F(PackageTrailer, version_001002003004_is_1_2_3_4) {
    trailer.version = "001002003004";
    EXPECT_EQ(read(), 0);
    expectVersion(info, 1, 2, 3, 4);
}

TEST_F(PackageTrailer, version_numbers_have_three_digits_each) {
    trailer.version = "999000123010";
    EXPECT_EQ(read(), 0);
    expectVersion(info, 999, 0, 123, 10);
}

TEST_F(PackageTrailer, version_numbers_are_decimal_despite_leading_zeros) {
    trailer.version = "010011012013";
    EXPECT_EQ(read(), 0);
    expectVersion(info, 10, 11, 12, 13);
}

TEST_F(PackageTrailer, version_numbers_may_be_padded_with_blanks) {
    trailer.version = "001 02 03 04";
    trailer.branchLength = " 0000004";
    EXPECT_EQ(read(), 0);
    expectVersion(info, 1, 2, 3, 4);
    EXPECT_STREQ(info.branch, "main");
}

TEST_F(PackageTrailer, version_numbers_may_be_negative) {
    trailer.version = "-01-02-03-04";
    EXPECT_EQ(read(), 0);
    expectVersion(info, -1, -2, -3, -4);
}

TEST_F(PackageTrailer, version_that_begins_with_a_letter_is_refused) {
    trailer.version = "v01002003004";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{kVersionError});
    expectVersion(info, 0, 0, 0, 0);
}

TEST_F(PackageTrailer, version_of_fewer_than_four_numbers_is_refused) {
    for (const char* version :
         {"001002003xxx", "001002xxx004", "001xxx003004", "x01002003004", "001.002.003."}) {
        package_services::reset();
        trailer.version = version;
        EXPECT_EQ(read(), -1) << version;
        EXPECT_EQ(logShape(), Lines{kVersionError}) << version;
    }
}

TEST_F(PackageTrailer, version_of_nul_bytes_is_refused) {
    trailer.version = std::string(12, '\0');
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{kVersionError});
}

TEST_F(PackageTrailer, version_at_the_blocks_end_ends_there) {
    setKey(counting(kBiggestKey));
    trailer.version = "001002003   ";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(logShape(), Lines{kVersionError});
}

TEST_F(PackageTrailer, failed_version_leaves_key_stamp_and_ident_read) {
    trailer.version = "no version!!";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(testsupport::readFile(kPubkey), "-----KEY-----\n");
    EXPECT_EQ(info.pubkey_file, kPubkey);
    EXPECT_STREQ(info.stamp, "20260101120000");
    EXPECT_STREQ(info.ident, "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(branch(), field(""));
}

// --- branch and user

TEST_F(PackageTrailer, branch_number_0_ends_the_read_without_branch_and_user) {
    trailer.branchLength = "00000000";
    trailer.branch.clear();
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(""));
    EXPECT_EQ(user(), field(""));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, unreadable_branch_number_is_tolerated) {
    for (const std::string& text : {std::string("zzzzzzzz"), std::string("-------5"), std::string(8, '\0'),
                                    std::string("G0000004"), std::string(".0000004")}) {
        package_services::reset();
        trailer.branchLength = text;
        EXPECT_EQ(read(), 0) << testing::PrintToString(text);
        EXPECT_EQ(logShape(), Lines{kNoBranch}) << testing::PrintToString(text);
        EXPECT_EQ(branch(), field(""));
        EXPECT_EQ(user(), field(""));
        EXPECT_EQ(info.version.bld, 4);
    }
}

TEST_F(PackageTrailer, unreadable_user_number_is_tolerated) {
    for (const std::string& text : {std::string("zzzzzzzz"), std::string(8, '\0'), std::string("G0000007")}) {
        package_services::reset();
        trailer.userLength = text;
        EXPECT_EQ(read(), 0) << testing::PrintToString(text);
        EXPECT_EQ(logShape(), Lines{kNoUser}) << testing::PrintToString(text);
        EXPECT_EQ(branch(), field("main"));
        EXPECT_EQ(user(), field(""));
    }
}

TEST_F(PackageTrailer, user_number_0_leaves_the_user_empty) {
    trailer.userLength = "00000000";
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field("main"));
    EXPECT_EQ(user(), field(""));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, branch_number_is_scanned_leniently) {
    for (const char* text : {"       4", "4       ", "4zzzzzzz", "0x000004", "0X000004", "\n\t\v\f\r  4",
                             "00000004", "+0000004", "4.000000", "04-04-04"}) {
        package_services::reset();
        info = {};
        trailer.branchLength = text;
        EXPECT_EQ(read(), 0) << text;
        EXPECT_EQ(branch(), field("main")) << text;
        EXPECT_EQ(user(), field("builder")) << text;
    }
}

TEST_F(PackageTrailer, user_number_is_scanned_leniently) {
    for (const char* text : {"       7", "7       ", "7zzzzzzz", "0x000007", "\n\t     7", "7-------"}) {
        package_services::reset();
        info = {};
        trailer.userLength = text;
        EXPECT_EQ(read(), 0) << text;
        EXPECT_EQ(user(), field("builder")) << text;
    }
}

TEST_F(PackageTrailer, scanned_digits_may_have_either_case) {
    for (const char* text : {"0000001A", "0000001a", "0x1A----", "0X1a----"}) {
        package_services::reset();
        info = {};
        setBranch(counting(26));
        trailer.branchLength = text;
        EXPECT_EQ(read(), 0) << text;
        EXPECT_EQ(branch(), field(counting(26))) << text;
        EXPECT_EQ(user(), field("builder")) << text;
    }
}

TEST_F(PackageTrailer, blank_branch_number_is_looked_for_in_the_text_behind_it) {
    trailer.branchLength = "        ";
    trailer.branch = "  5-bcd";
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field("  5-b"));
}

TEST_F(PackageTrailer, number_of_eight_digits_ends_in_front_of_the_text) {
    setBranch("feed");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field("feed"));
    EXPECT_EQ(user(), field("builder"));
}

TEST_F(PackageTrailer, at_most_127_bytes_of_the_branch_are_kept) {
    for (const unsigned long length : {1UL, 126UL, 127UL, 128UL, 129UL, 1000UL}) {
        info = {};
        setBranch(counting(length));
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(branch(), field(counting(std::min(length, 127UL)))) << length;
        EXPECT_EQ(user(), field("builder")) << length;
    }
}

TEST_F(PackageTrailer, branch_of_200_bytes_keeps_127_and_the_user_behind_it_is_found) {
    setBranch(counting(200));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(counting(127)));
    EXPECT_EQ(user(), field("builder"));
}

TEST_F(PackageTrailer, at_most_127_bytes_of_the_user_are_kept) {
    for (const unsigned long length : {1UL, 126UL, 127UL, 128UL, 129UL, 1000UL}) {
        info = {};
        setUser(counting(length));
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(user(), field(counting(std::min(length, 127UL)))) << length;
    }
}

TEST_F(PackageTrailer, texts_are_copied_as_they_stand) {
    setBranch(std::string("a\0b\n\xff%s", 7));
    setUser(std::string("\0\0end", 5));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(trailer.branch));
    EXPECT_EQ(user(), field(trailer.user));
}

// The length of a branch text that reaches to the end of the block.
unsigned long branchRoom(const Trailer& trailer) {
    return kTrailerBytes - kBranchAt - trailer.key.size();
}

TEST_F(PackageTrailer, branch_up_to_the_blocks_end_leaves_no_user) {
    setKey(counting(kBiggestKey - 8 - 50));
    ASSERT_EQ(branchRoom(trailer), 50U);
    setBranch(counting(50));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(counting(50)));
    EXPECT_EQ(user(), field(""));
    EXPECT_EQ(logShape(), Lines{kNoUser});
}

TEST_F(PackageTrailer, branch_that_reaches_beyond_the_block_ends_with_it) {
    setKey(counting(kBiggestKey - 8 - 50));
    setBranch(counting(51));
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(counting(50)));
    EXPECT_EQ(user(), field(""));
    EXPECT_EQ(logShape(), Lines{kNoUser});
}

TEST_F(PackageTrailer, branch_number_cut_by_the_blocks_end_gives_an_empty_branch) {
    setKey(counting(kBiggestKey - 4));
    trailer.branchLength = "FFFFFFFF";
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(""));
    EXPECT_EQ(user(), field(""));
    EXPECT_EQ(logShape(), Lines{kNoUser});
}

TEST_F(PackageTrailer, branch_number_that_points_outside_the_block_leaves_no_user) {
    trailer.branch = counting(300);
    for (const char* length :
         {"80000000", "7FFFFFFF", "00001000", "00000F7A", "FFFFFF77", "FFFFFF00", "FFFFF000"}) {
        package_services::reset();
        info = {};
        trailer.branchLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(branch(), field(counting(127))) << length;
        EXPECT_EQ(user(), field("")) << length;
        EXPECT_EQ(logShape(), Lines{kNoUser}) << length;
    }
}

// As a signed number such a length leads backwards from the start of the branch text.
TEST_F(PackageTrailer, negative_branch_number_leads_back_to_the_user) {
    struct Case {
        const char* length;
        std::string branch;
        std::string user;
    };
    const std::string behindNumber = counting(300);
    const std::vector<Case> cases{
        {"FFFFFFFF", "-234567" + behindNumber, behindNumber.substr(0, 15)},  // the number's own last digit
        {"FFFFFFFE", "-23456" + behindNumber,
         behindNumber.substr(0, 127)},                            // "FE", more than there is room for
        {"FFFFFFF8", behindNumber, behindNumber.substr(0, 127)},  // the number itself, negative, too
        {"-0000008", behindNumber, behindNumber.substr(0, 127)},
        {"FFFFFFF7", behindNumber, "7" + behindNumber.substr(0, 126)},  // the version's last digit in front
    };
    for (const Case& given : cases) {
        SCOPED_TRACE(given.length);
        package_services::reset();
        info = {};
        trailer.branchLength = given.length;
        trailer.branch = given.branch;
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(branch(), field(given.branch.substr(0, 127)));
        EXPECT_EQ(user(), field(given.user));
        EXPECT_TRUE(fake::nothingLogged());
    }
}

TEST_F(PackageTrailer, negative_branch_number_reaches_as_far_as_the_blocks_start) {
    trailer.branchLength = "FFFFFF78";  // 136 bytes back, where 14 of them are the key's
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(user(), field(trailer.block().substr(8, 100)));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(PackageTrailer, user_number_in_the_last_bytes_gives_an_empty_user) {
    setBranch(std::string(branchRoom(trailer) - 8, 'b'));
    trailer.userLength = "00000005";
    EXPECT_EQ(trailer.block().substr(kTrailerBytes - 8), "00000005");
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(branch(), field(std::string(127, 'b')));
    EXPECT_EQ(user(), field(""));
}

TEST_F(PackageTrailer, user_number_cut_by_the_blocks_end_gives_an_empty_user) {
    for (unsigned long left = 1; left < 8; ++left) {
        info = {};
        setBranch(std::string(branchRoom(trailer) - left, 'b'));
        trailer.userLength = "FFFFFFFF";
        EXPECT_EQ(read(), 0) << left;
        EXPECT_EQ(user(), field("")) << left;
    }
}

TEST_F(PackageTrailer, user_that_reaches_beyond_the_block_ends_with_it) {
    setBranch(std::string(branchRoom(trailer) - 8 - 20, 'b'));
    for (const char* length : {"00000014", "00000015", "00000080", "7FFFFFFF", "80000000", "FFFFFFFF"}) {
        info = {};
        trailer.user = counting(20);
        trailer.userLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(user(), field(counting(20))) << length;
    }
}

TEST_F(PackageTrailer, negative_user_number_counts_as_large) {
    for (const char* length : {"80000000", "FFFFFFFF", "-1      ", "FFFFFFFE"}) {
        info = {};
        trailer.user = counting(300);
        trailer.userLength = length;
        EXPECT_EQ(read(), 0) << length;
        EXPECT_EQ(user(), field(counting(127))) << length;
    }
}

// --- cancellation

TEST_F(PackageTrailer, no_line_is_logged_while_a_cancel_could_act) {
    std::filesystem::create_directory(kPubkey);
    trailer.branchLength = "zzzzzzzz";
    EXPECT_EQ(read(), 0);
    trailer.version = "none        ";
    EXPECT_EQ(read(), -1);
    const std::vector<fake::LogLine> lines = fake::log().lines();
    ASSERT_EQ(lines.size(), 4U);
    for (const fake::LogLine& line : lines) {
        EXPECT_FALSE(line.cancelEnabled) << line;
    }
}

// --- every block

// What a read must give, worked out field by field.
struct Expectation {
    int result = -1;
    Lines lines;
    _UPGRADE_PKG_T info;
    bool keyWritten = false;
};

bool eightDigits(const std::string& text, uint32_t& value) {
    if (text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    value = static_cast<uint32_t>(std::stoul(text, nullptr, 16));
    return true;
}

// The text from an offset to the end of the block, as a scan sees it.
std::string textAt(const std::string& block, unsigned long at) {
    return at < block.size() ? std::string(block.c_str() + at) : std::string();
}

void expectText(const std::string& block, unsigned long at, unsigned count, std::array<char, 128>& text) {
    const unsigned long kept = std::min<unsigned long>(count, 127);
    const std::string bytes = at < block.size() ? block.substr(at, kept) : std::string();
    std::copy(bytes.begin(), bytes.end(), text.begin());
}

void expectDescription(const std::string& block, Expectation& expected) {
    const unsigned long key = expected.info.pubkey_len;
    std::array<char, 128> text{};
    unsigned branchBytes = 0;
    if (sscanf(textAt(block, kFixedBytes + key).c_str(), "%08X", &branchBytes) != 1) {
        expected.lines.push_back(kNoBranch);
        return;
    }
    if (branchBytes == 0) {
        return;
    }
    expectText(block, kBranchAt + key, branchBytes, text);
    std::copy(text.begin(), text.end(), expected.info.branch);
    const auto userAt = static_cast<uint32_t>(kBranchAt + key + branchBytes);
    unsigned userBytes = 0;
    if (sscanf(textAt(block, userAt).c_str(), "%08X", &userBytes) != 1) {
        expected.lines.push_back(kNoUser);
        return;
    }
    text.fill('\0');
    expectText(block, userAt + 8, userBytes, text);
    std::copy(text.begin(), text.end(), expected.info.user);
}

Expectation expectationOf(const std::string& block, unsigned long payloadRoom) {
    Expectation expected;
    _UPGRADE_PKG_T& info = expected.info;
    char number[16];
    if (!eightDigits(block.substr(0, 8), info.pkg_file_len) || info.pkg_file_len > payloadRoom) {
        snprintf(number, sizeof number, "%x", info.pkg_file_len);
        expected.lines.push_back(lengthError(number, "64"));
        return expected;
    }
    block.copy(info.md5, 32, 8);
    if (!eightDigits(block.substr(40, 8), info.pubkey_len) || info.pubkey_len > kBiggestKey) {
        expected.lines.push_back(keyLengthError(std::to_string(static_cast<int>(info.pubkey_len))));
        return expected;
    }
    info.pubkey_file = kPubkey;
    expected.keyWritten = true;
    block.copy(info.stamp, 14, 48 + info.pubkey_len);
    block.copy(info.ident, 40, 62 + info.pubkey_len);
    L_VERSION_T& version = info.version;
    if (sscanf(textAt(block, 102 + info.pubkey_len).c_str(), "%03d%03d%03d%03d", &version.hw, &version.mpu,
               &version.mcu, &version.bld) != 4) {
        expected.lines.push_back(kVersionError);
        return expected;
    }
    expected.result = 0;
    expectDescription(block, expected);
    return expected;
}

// Trailers that are right, and then damaged here and there; some have numbers around the limits.
class BlockMaker {
  public:
    explicit BlockMaker(unsigned seed) : random(seed) {}

    std::string make() {
        if (below(20) == 0) {
            return noise(kTrailerBytes);
        }
        Trailer trailer;
        trailer.payloadLength = below(8) != 0 ? hexText(below(102)) : anyNumber();
        trailer.md5 = noise(32);
        trailer.key = noise(below(3) != 0 ? below(300) : kBiggestKey - below(300));
        trailer.keyLength = below(8) != 0 ? hexText(trailer.key.size()) : anyNumber();
        trailer.version =
            below(8) != 0 ? testsupport::versionText(number(), number(), number(), number()) : noise(12);
        trailer.branch = below(4) != 0 ? counting(below(300)) : noise(below(300));
        trailer.branchLength = below(3) != 0 ? hexText(trailer.branch.size()) : anyNumber();
        trailer.user = noise(below(300));
        trailer.userLength = below(3) != 0 ? hexText(trailer.user.size()) : anyNumber();
        trailer.fill = static_cast<char>(below(2) != 0 ? 0 : below(256));
        return damaged(trailer.block());
    }

  private:
    unsigned long below(unsigned long limit) { return random() % limit; }
    int number() { return static_cast<int>(below(1000)); }
    std::string noise(unsigned long length) {
        std::string bytes(length, '\0');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        return bytes;
    }
    std::string anyNumber() {
        static const char* const numbers[] = {"FFFFFFFF", "80000000", "7FFFFFFF", "00001000", "00000FFF",
                                              "0x000010", "       8", "10      ", "zzzzzzzz", "-0000001",
                                              "0000007F", "00000080", "00000F80", "+000001f", "        ",
                                              "FFFFFF80", "0xzzzzzz", "ffffffff"};
        return below(3) != 0 ? numbers[below(std::size(numbers))] : hexText(below(2 * kTrailerBytes));
    }
    std::string damaged(std::string block) {
        for (unsigned long times = below(4); times > 1; --times) {
            block[below(kTrailerBytes)] = static_cast<char>(random());
            block[below(200)] = "0123456789ABCDEFabcdef \n-+xXzg"[below(30)];
        }
        return block;
    }

    std::mt19937 random;
};

void expectSame(const _UPGRADE_PKG_T& actual, const _UPGRADE_PKG_T& expected) {
    EXPECT_EQ(actual.pkg_file_len, expected.pkg_file_len);
    EXPECT_EQ(std::memcmp(actual.md5, expected.md5, sizeof actual.md5), 0);
    EXPECT_EQ(actual.pubkey_len, expected.pubkey_len);
    EXPECT_EQ(actual.pubkey_file, expected.pubkey_file);
    EXPECT_EQ(std::memcmp(actual.stamp, expected.stamp, sizeof actual.stamp), 0);
    EXPECT_EQ(std::memcmp(actual.ident, expected.ident, sizeof actual.ident), 0);
    expectVersion(actual, expected.version.hw, expected.version.mpu, expected.version.mcu,
                  expected.version.bld);
    EXPECT_EQ(std::memcmp(actual.branch, expected.branch, sizeof actual.branch), 0);
    EXPECT_EQ(std::memcmp(actual.user, expected.user, sizeof actual.user), 0);
}

// KAVRO_FUZZ_ROUNDS and KAVRO_FUZZ_SEED make it a longer and another walk.
unsigned settingOr(const char* name, unsigned otherwise) {
    const char* const text = getenv(name);
    return text == nullptr ? otherwise : static_cast<unsigned>(strtoul(text, nullptr, 10));
}

TEST_F(PackageTrailer, any_block_is_read_as_the_format_says) {
    BlockMaker maker(settingOr("KAVRO_FUZZ_SEED", 1));
    const unsigned rounds = settingOr("KAVRO_FUZZ_ROUNDS", 1500);
    unsigned succeeded = 0;
    for (unsigned round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        package_services::reset();
        std::filesystem::remove(kPubkey);
        info = {};
        const std::string block = maker.make();
        const Expectation expected = expectationOf(block, payload.size());
        EXPECT_EQ(readBlock(block), expected.result);
        EXPECT_EQ(logShape(), expected.lines);
        expectSame(info, expected.info);
        EXPECT_EQ(testsupport::exists(kPubkey), expected.keyWritten);
        if (expected.keyWritten) {
            EXPECT_EQ(testsupport::readFile(kPubkey), block.substr(48, info.pubkey_len));
        }
        succeeded += expected.result == 0 ? 1 : 0;
    }
    EXPECT_GT(succeeded, rounds / 4);
    EXPECT_LT(succeeded, rounds);
}

}  // namespace
