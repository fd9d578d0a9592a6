#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "base/digest.h"

namespace {

using kavro::Digest;

std::string sha256Of(const std::string& text) {
    Digest digest(Digest::Kind::kSha256);
    digest.add(text.data(), text.size());
    return digest.finishAsText();
}

TEST(RunningDigest, sha256_is_that_of_the_standards_examples) {
    EXPECT_EQ(sha256Of(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256Of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256Of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(RunningDigest, pieces_of_any_length_give_the_digest_of_the_whole) {
    const std::string text(10000, 'x');
    for (const std::size_t piece : {1UL, 63UL, 64UL, 65UL, 9999UL}) {
        SCOPED_TRACE(piece);
        Digest digest(Digest::Kind::kSha256);
        for (std::size_t offset = 0; offset < text.size(); offset += piece) {
            digest.add(text.data() + offset, std::min(piece, text.size() - offset));
        }
        EXPECT_EQ(digest.finishAsText(), sha256Of(text));
    }
}

TEST(RunningDigest, md5_has_16_bytes) {
    Digest digest(Digest::Kind::kMd5);
    digest.add("hello", 5);
    EXPECT_EQ(digest.finishAsText(), "5d41402abc4b2a76b9719d911017c592");
}

TEST(RunningDigest, is_finished_once) {
    Digest digest(Digest::Kind::kSha256);
    EXPECT_EQ(digest.finish().size(), 32U);
    digest.add("x", 1);
    EXPECT_TRUE(digest.finish().empty());
}

}  // namespace
