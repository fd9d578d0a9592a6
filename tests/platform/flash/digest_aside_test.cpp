// A digest that is computed on another thread.
#include "platform/flash/digest_aside.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/temp_dir.h"

namespace {

using kavro::Digest;
using kavro::DigestAside;

std::string digestOf(const std::string& text) {
    Digest digest(Digest::Kind::kSha256);
    digest.add(text.data(), text.size());
    return digest.finishAsText();
}

TEST(DigestAside, is_that_of_all_pieces_in_their_order) {
    const std::string text = kavro_test::patterned(1000003);
    for (const std::size_t piece : {1000UL, 65536UL, 1000003UL}) {
        SCOPED_TRACE(piece);
        DigestAside digest;
        for (std::size_t begin = 0; begin < text.size(); begin += piece) {
            digest.add(text.data() + begin, std::min(piece, text.size() - begin));
        }
        EXPECT_EQ(digest.finishAsText(), digestOf(text));
    }
}

TEST(DigestAside, needs_a_piece_no_longer_than_it_is_waited_for) {
    std::string piece(100000, 'a');
    DigestAside digest;
    digest.add(piece.data(), piece.size());
    digest.wait();
    piece.assign(piece.size(), 'b');
    digest.add(piece.data(), piece.size());
    digest.wait();
    piece.assign(piece.size(), 'c');
    EXPECT_EQ(digest.finishAsText(), digestOf(std::string(100000, 'a') + std::string(100000, 'b')));
}

TEST(DigestAside, of_nothing_is_that_of_nothing) {
    DigestAside digest;
    digest.wait();
    EXPECT_EQ(digest.finishAsText(), digestOf(""));
}

TEST(DigestAside, need_not_be_finished) {
    const std::string piece(300000, 'x');
    for (int round = 0; round < 20; ++round) {
        DigestAside digest;
        digest.add(piece.data(), piece.size());
    }
}

}  // namespace
