#include "platform/mcu/frame.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using kavro::Bytes;
using kavro::encodeFrame;
using kavro::Frame;
using kavro::FrameReader;
using kavro::kMaxMessageBytes;

std::vector<Frame> read(FrameReader& reader, const Bytes& wire) {
    std::vector<Frame> frames;
    for (const std::uint8_t byte : wire) {
        if (std::optional<Frame> frame = reader.take(byte)) {
            frames.push_back(*frame);
        }
    }
    return frames;
}

std::vector<Frame> read(const Bytes& wire) {
    FrameReader reader;
    return read(reader, wire);
}

void expectRoundTrip(const Frame& frame) {
    const std::vector<Frame> frames = read(encodeFrame(frame));
    ASSERT_EQ(frames.size(), 1U) << frame.message.size() << " bytes";
    ASSERT_EQ(frames[0].sequence, frame.sequence);
    ASSERT_TRUE(frames[0].message == frame.message) << frame.message.size() << " bytes";
}

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes whole;
    for (const Bytes& part : parts) {
        whole.insert(whole.end(), part.begin(), part.end());
    }
    return whole;
}

struct Golden {
    Frame frame;
    Bytes wire;
};

// The CRCs are those of another implementation, the stuffing was done by hand.
const Golden kGolden[] = {
    {{0, {0x3E, 0x00}}, {0x01, 0x02, 0x3E, 0x05, 0x6F, 0xC2, 0x84, 0xBE, 0x00}},
    {{1, {0x22, 0xF1, 0x89}}, {0x09, 0x01, 0x22, 0xF1, 0x89, 0x8F, 0xC1, 0xF2, 0x3B, 0x00}},
    {{7, {0x76, 0xFF}}, {0x08, 0x07, 0x76, 0xFF, 0x6A, 0xFE, 0x69, 0xAE, 0x00}},
    {{255, {0, 0, 0}}, {0x02, 0xFF, 0x01, 0x01, 0x05, 0xED, 0xD9, 0x41, 0xFF, 0x00}},
};

TEST(Frames, have_these_bytes_on_the_wire) {
    for (const Golden& golden : kGolden) {
        EXPECT_EQ(encodeFrame(golden.frame), golden.wire);
        const std::vector<Frame> frames = read(golden.wire);
        ASSERT_EQ(frames.size(), 1U);
        EXPECT_EQ(frames[0].sequence, golden.frame.sequence);
        EXPECT_EQ(frames[0].message, golden.frame.message);
    }
}

TEST(Frames, messages_of_every_length_come_back) {
    for (std::size_t size = 1; size <= kMaxMessageBytes; ++size) {
        Bytes mixed(size);
        for (std::size_t index = 0; index < size; ++index) {
            mixed[index] = static_cast<std::uint8_t>(index * 7 + size);
        }
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip({static_cast<std::uint8_t>(size), Bytes(size, 0)}));
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip({static_cast<std::uint8_t>(size), Bytes(size, 0xFF)}));
        ASSERT_NO_FATAL_FAILURE(expectRoundTrip({static_cast<std::uint8_t>(size), mixed}));
    }
}

// Where groups of the stuffing are full, and a zero just before, at, and behind their border.
TEST(Frames, runs_without_a_zero_come_back_at_the_borders_of_groups) {
    for (std::size_t run = 245; run <= 1275; ++run) {
        for (const std::size_t behind : {0, 1, 2, 254, 255}) {
            Bytes message(run, 0x55);
            message.push_back(0);
            message.insert(message.end(), behind, 0xAA);
            ASSERT_NO_FATAL_FAILURE(expectRoundTrip({3, message}));
        }
    }
}

TEST(Frames, hold_no_zero_but_the_last_byte) {
    for (const std::size_t size : {1, 253, 254, 255, 508, 509, 4096}) {
        for (const int fill : {0x00, 0x01, 0xFF}) {
            const Bytes wire = encodeFrame({0, Bytes(size, static_cast<std::uint8_t>(fill))});
            EXPECT_EQ(std::count(wire.begin(), wire.end(), 0), 1);
            EXPECT_EQ(wire.back(), 0);
        }
    }
}

TEST(Frames, one_damaged_bit_is_never_accepted) {
    for (const Bytes& message : {Bytes{0x3E, 0}, Bytes(300, 0), Bytes(300, 0x7F), Bytes{1, 0, 2, 0, 0, 3}}) {
        const Bytes good = encodeFrame({9, message});
        for (std::size_t bit = 0; bit < 8 * good.size(); ++bit) {
            Bytes bad = good;
            bad[bit / 8] = static_cast<std::uint8_t>(bad[bit / 8] ^ 1U << bit % 8);
            bad.push_back(0);
            FrameReader reader;
            ASSERT_TRUE(read(reader, bad).empty()) << "bit " << bit;
            ASSERT_GT(reader.damagedFrames(), 0U) << "bit " << bit;
        }
    }
}

TEST(Frames, one_lost_or_doubled_byte_is_never_accepted) {
    const Bytes good = encodeFrame({9, {0x36, 1, 0, 0, 0, 5, 6, 7}});
    for (std::size_t index = 0; index + 1 < good.size(); ++index) {
        Bytes lost = good;
        lost.erase(lost.begin() + static_cast<long>(index));
        EXPECT_TRUE(read(lost).empty()) << index;
        Bytes doubled = good;
        doubled.insert(doubled.begin() + static_cast<long>(index), good[index]);
        EXPECT_TRUE(read(doubled).empty()) << index;
    }
}

TEST(Frames, a_good_frame_is_read_behind_a_damaged_one) {
    const Bytes good = encodeFrame({2, {0x3E, 0}});
    Bytes bad = good;
    bad[3] ^= 0x10;
    FrameReader reader;
    EXPECT_EQ(read(reader, joined({bad, good, good})).size(), 2U);
    EXPECT_EQ(reader.damagedFrames(), 1U);
}

TEST(Frames, zeros_between_frames_mean_nothing) {
    const Bytes frame = encodeFrame({2, {0x3E, 0}});
    FrameReader reader;
    EXPECT_EQ(read(reader, joined({Bytes(1000, 0), frame, Bytes(1000, 0), frame, Bytes(3, 0)})).size(), 2U);
    EXPECT_EQ(reader.damagedFrames(), 0U);
}

TEST(Frames, without_a_message_or_too_short_are_refused) {
    // Sequence number and CRC only, which holds: 00 | CRC-32 of it.
    EXPECT_TRUE(read({0x01, 0x05, 0x8D, 0xEF, 0x02, 0xD2, 0x00}).empty());
    for (std::uint8_t size = 0; size < 6; ++size) {
        Bytes wire(size + 1U, 0x11);
        wire[0] = static_cast<std::uint8_t>(size + 1);
        wire.push_back(0);
        EXPECT_TRUE(read(wire).empty()) << int{size};
    }
}

TEST(Frames, longer_than_allowed_are_refused_and_the_next_one_is_read) {
    for (const std::size_t size : {kMaxMessageBytes + 1, kMaxMessageBytes + 2, std::size_t{100000}}) {
        for (const int fill : {0x00, 0xFF}) {
            FrameReader reader;
            EXPECT_TRUE(read(reader, encodeFrame({1, Bytes(size, static_cast<std::uint8_t>(fill))})).empty())
                << size;
            EXPECT_EQ(reader.damagedFrames(), 1U);
            EXPECT_EQ(read(reader, encodeFrame({1, {0x3E, 0}})).size(), 1U);
        }
    }
}

TEST(Frames, garbage_gives_no_frame_and_the_frame_behind_its_end_is_read) {
    std::mt19937 random(20240229);
    FrameReader reader;
    for (int round = 0; round < 2000; ++round) {
        Bytes garbage(random() % 600);
        for (std::uint8_t& byte : garbage) {
            byte = static_cast<std::uint8_t>(random());
        }
        ASSERT_TRUE(read(reader, garbage).empty());
        ASSERT_TRUE(read(reader, {0}).empty());
        ASSERT_EQ(read(reader, encodeFrame({4, {0x3E, 0}})).size(), 1U);
    }
}

}  // namespace
