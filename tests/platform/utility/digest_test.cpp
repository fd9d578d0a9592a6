#include <gtest/gtest.h>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::chkFileMd5;
using kavro_test::spill;
using kavro_test::TempDir;

constexpr const char* kMd5OfNothing = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kMd5OfHello = "5d41402abc4b2a76b9719d911017c592";

class ChkFileMd5 : public testing::Test {
  protected:
    std::string holding(const std::string& content) const {
        spill(directory / "file", content);
        return directory / "file";
    }
    const TempDir directory;
};

TEST_F(ChkFileMd5, digest_of_the_content_is_recognised_in_either_case) {
    const std::string path = holding("hello");
    EXPECT_TRUE(chkFileMd5(path, kMd5OfHello));
    EXPECT_TRUE(chkFileMd5(path, "5D41402ABC4B2A76B9719D911017C592"));
    EXPECT_TRUE(chkFileMd5(path, "5d41402aBC4B2A76b9719d911017c592"));
}

TEST_F(ChkFileMd5, empty_file_has_the_digest_of_nothing) {
    EXPECT_TRUE(chkFileMd5(holding(""), kMd5OfNothing));
}

TEST_F(ChkFileMd5, long_file_is_digested_whole) {
    // One million letters a, from the definition of MD5's test suites.
    EXPECT_TRUE(chkFileMd5(holding(std::string(1000000, 'a')), "7707d6ae4e027c70eea2a935c2296f21"));
}

TEST_F(ChkFileMd5, every_wrong_digit_is_noticed) {
    const std::string path = holding("hello");
    for (std::size_t place = 0; place < 32; ++place) {
        std::string text = kMd5OfHello;
        text[place] = text[place] == '0' ? '1' : '0';
        EXPECT_FALSE(chkFileMd5(path, text)) << text;
    }
}

TEST_F(ChkFileMd5, text_that_is_no_digest_is_refused) {
    const std::string path = holding("hello");
    const std::string digest = kMd5OfHello;
    for (const std::string& text :
         {std::string(), digest.substr(0, 30), digest.substr(0, 31), digest + "0", digest + "00",
          digest + "\n", " " + digest.substr(1), std::string(32, 'g')}) {
        EXPECT_FALSE(chkFileMd5(path, text)) << text;
    }
}

TEST_F(ChkFileMd5, unreadable_file_is_false_even_for_the_digest_of_nothing) {
    EXPECT_FALSE(chkFileMd5(directory / "missing", kMd5OfNothing));
    EXPECT_FALSE(chkFileMd5(directory.path(), kMd5OfNothing));
    EXPECT_FALSE(chkFileMd5("", kMd5OfNothing));
}

}  // namespace
