#include "package/trailer.h"

#include <gtest/gtest.h>

namespace {

using kavro::ErrorCode;
using kavro::package::encodeTrailer;
using kavro::package::Trailer;

Trailer exampleTrailer() {
    Trailer trailer;
    trailer.payloadBytes = 0x0012ABCD;
    trailer.md5 = "00112233445566778899aabbccddeeff";
    trailer.publicKey = "KEY";
    trailer.stamp = "20261121085700";
    trailer.ident = "0123456789012345678901234567890123456789";
    trailer.version = {1, 105, 8, 3};
    trailer.branch = "main";
    trailer.user = "builder";
    return trailer;
}

std::string field(const std::string& block, std::size_t offset, std::size_t size) {
    return block.substr(offset, size);
}

template <typename Change>
void expectRefusal(ErrorCode code, const std::string& part, Change change) {
    Trailer trailer = exampleTrailer();
    change(trailer);
    const kavro::Result<void> result = kavro::package::checkTrailerFits(trailer);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, code);
    EXPECT_NE(result.error().text.find(part), std::string::npos) << result.error().text;
    EXPECT_NE(result.error().next, "");
}

TEST(PackageTrailer, every_field_stands_at_its_offset) {
    const std::string block = encodeTrailer(exampleTrailer());
    constexpr std::size_t kKey = 3;
    constexpr std::size_t kBranch = 4;
    EXPECT_EQ(block.size(), 4096U);
    EXPECT_EQ(field(block, 0, 8), "0012ABCD");
    EXPECT_EQ(field(block, 8, 32), "00112233445566778899aabbccddeeff");
    EXPECT_EQ(field(block, 40, 8), "00000003");
    EXPECT_EQ(field(block, 48, kKey), "KEY");
    EXPECT_EQ(field(block, 48 + kKey, 14), "20261121085700");
    EXPECT_EQ(field(block, 62 + kKey, 40), "0123456789012345678901234567890123456789");
    EXPECT_EQ(field(block, 102 + kKey, 12), "001105008003");
    EXPECT_EQ(field(block, 114 + kKey, 8), "00000004");
    EXPECT_EQ(field(block, 122 + kKey, kBranch), "main");
    EXPECT_EQ(field(block, 122 + kKey + kBranch, 8), "00000007");
    EXPECT_EQ(field(block, 130 + kKey + kBranch, 7), "builder");
    EXPECT_EQ(block.find_first_not_of('\0', 137 + kKey + kBranch), std::string::npos);
}

TEST(PackageTrailer, short_texts_are_padded_with_nuls) {
    Trailer trailer = exampleTrailer();
    trailer.stamp = "2026";
    trailer.ident = "";
    const std::string block = encodeTrailer(trailer);
    EXPECT_EQ(field(block, 51, 14), "2026" + std::string(10, '\0'));
    EXPECT_EQ(field(block, 65, 40), std::string(40, '\0'));
    EXPECT_EQ(field(block, 105, 12), "001105008003");
}

TEST(PackageTrailer, empty_branch_and_user_have_the_length_zero) {
    Trailer trailer = exampleTrailer();
    trailer.branch = "";
    trailer.user = "";
    EXPECT_EQ(field(encodeTrailer(trailer), 117, 16), "0000000000000000");
}

TEST(PackageTrailer, a_stamp_of_15_bytes_is_refused) {
    expectRefusal(ErrorCode::kUsage, "--stamp", [](Trailer& t) { t.stamp = std::string(15, '1'); });
}

TEST(PackageTrailer, an_ident_of_41_bytes_is_refused) {
    expectRefusal(ErrorCode::kUsage, "--ident", [](Trailer& t) { t.ident = std::string(41, '1'); });
}

TEST(PackageTrailer, a_user_without_a_branch_is_refused) {
    expectRefusal(ErrorCode::kUsage, "--user 'builder'", [](Trailer& t) { t.branch = ""; });
}

TEST(PackageTrailer, a_trailer_that_is_just_full_is_accepted) {
    Trailer trailer = exampleTrailer();
    trailer.branch = std::string(4096 - 130 - trailer.publicKey.size() - trailer.user.size(), 'b');
    EXPECT_TRUE(kavro::package::checkTrailerFits(trailer).ok());
    const std::string block = encodeTrailer(trailer);
    EXPECT_EQ(block.size(), 4096U);
    EXPECT_EQ(block.substr(4089), "builder");
}

TEST(PackageTrailer, one_byte_more_than_the_trailer_holds_is_refused) {
    expectRefusal(ErrorCode::kRefused, "do not fit into the trailer", [](Trailer& t) {
        t.branch = std::string(4096 - 130 - t.publicKey.size() - t.user.size() + 1, 'b');
    });
}

// A device overlooks the user text then.
TEST(PackageTrailer, a_user_behind_an_empty_branch_is_a_fault) {
    Trailer trailer = exampleTrailer();
    trailer.branch = "";
    const kavro::package::TrailerReading reading =
        kavro::package::decodeTrailer(kavro::package::encodeTrailer(trailer));
    ASSERT_EQ(reading.faults.size(), 1U);
    EXPECT_EQ(reading.faults.front(),
              "the trailer has a user text without a branch text, and no device reads it then");
}

}  // namespace
