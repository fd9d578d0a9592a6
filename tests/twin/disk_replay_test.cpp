// What disk-replay makes of a log of writes: a disk of eight sectors, to which each test writes single bytes.
#include <endian.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/support/device.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr std::size_t kSector = 512;
constexpr std::uint64_t kWrite = 0;
constexpr std::uint64_t kFlush = 1;
constexpr std::uint64_t kDurable = 2;
constexpr std::uint64_t kDiscard = 4;

std::string number(std::uint64_t value) {
    value = htole64(value);
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string padded(std::string text) {
    text.resize(kSector, '\0');
    return text;
}

class DiskReplay : public testing::Test {
  protected:
    // One sector, full of that letter.
    void write(std::uint64_t sector, char letter, std::uint64_t flags = kWrite) {
        entries +=
            padded(number(sector) + number(1) + number(flags) + number(0)) + std::string(kSector, letter);
        ++count;
    }

    void flush() {
        entries += padded(number(0) + number(0) + number(kFlush) + number(0));
        ++count;
    }

    void discard(std::uint64_t sector) {
        entries += padded(number(sector) + number(1) + number(kDiscard) + number(0));
        ++count;
    }

    testsupport::ProgramResult replay(const std::vector<std::string>& words) {
        testsupport::writeFile(
            log, padded(number(0x6a736677736872) + number(1) + number(count) + number(kSector)) + entries);
        std::vector<std::string> all = {DISK_REPLAY};
        all.insert(all.end(), words.begin(), words.end());
        return testsupport::runProgram(all);
    }

    // The first letter of each sector after the cut, '.' for what was there before.
    std::string after(std::size_t entry, unsigned seed) {
        testsupport::writeFile(image, std::string(8 * kSector, '.'));
        const auto result = replay({"cut", log, image, std::to_string(entry), std::to_string(seed)});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const std::string disk = testsupport::readFile(image);
        EXPECT_EQ(disk.size(), 8 * kSector);
        std::string letters;
        for (std::size_t sector = 0; sector < 8; ++sector) {
            EXPECT_EQ(disk.substr(sector * kSector, kSector), std::string(kSector, disk[sector * kSector]));
            letters += disk[sector * kSector];
        }
        return letters;
    }

    kavro_test::TempDir directory;
    const std::string log = directory / "log";
    const std::string image = directory / "image";
    std::string entries;
    std::uint64_t count = 0;
};

TEST_F(DiskReplay, what_was_flushed_is_there_and_nothing_that_came_later) {
    write(0, 'a');
    write(1, 'b');
    flush();
    write(2, 'c');
    write(0, 'd');
    EXPECT_EQ(after(5, 0), "ab......");
    EXPECT_EQ(after(2, 0), "........");
    EXPECT_EQ(after(3, 0), "ab......");
    EXPECT_EQ(after(0, 0), "........");
}

TEST_F(DiskReplay, a_durable_write_is_there_without_a_flush) {
    write(0, 'a');
    write(1, 'b', kDurable);
    EXPECT_EQ(after(2, 0), ".b......");
}

TEST_F(DiskReplay, a_write_that_brings_its_flush_makes_those_before_it_durable) {
    write(0, 'a');
    write(1, 'b', kFlush | kDurable);
    write(2, 'c');
    EXPECT_EQ(after(3, 0), "ab......");
}

TEST_F(DiskReplay, a_discarded_sector_is_zero) {
    write(0, 'a');
    discard(0);
    flush();
    EXPECT_EQ(after(3, 0), std::string(1, '\0') + ".......");
}

TEST_F(DiskReplay, a_seed_loses_some_of_what_was_not_flushed_the_same_each_time) {
    for (std::uint64_t sector = 0; sector < 8; ++sector) {
        write(sector, static_cast<char>('a' + sector));
    }
    bool someLost = false;
    bool someKept = false;
    for (unsigned seed = 1; seed <= 16; ++seed) {
        const std::string letters = after(8, seed);
        EXPECT_EQ(letters, after(8, seed));
        someLost = someLost || letters.find('.') != std::string::npos;
        someKept = someKept || letters != "........";
    }
    EXPECT_TRUE(someLost);
    EXPECT_TRUE(someKept);
}

TEST_F(DiskReplay, counts_the_entries) {
    write(0, 'a');
    flush();
    EXPECT_EQ(replay({"count", log}).out, "2\n");
}

TEST_F(DiskReplay, finds_the_first_and_the_last_write_to_a_place) {
    write(0, 'a');
    write(3, 'b');
    flush();
    write(4, 'c');
    write(5, 'd');
    discard(4);
    const auto find = [this](std::size_t sector, std::size_t sectors) {
        return replay({"find", log, std::to_string(sector * kSector), std::to_string(sectors * kSector)});
    };
    EXPECT_EQ(find(3, 2).out, "2 4\n");
    EXPECT_EQ(find(4, 4).out, "4 5\n");
    EXPECT_EQ(find(0, 1).out, "1 1\n");
    EXPECT_NE(find(6, 2).exitCode, 0);
}

TEST_F(DiskReplay, refuses_what_is_no_log_or_is_shorter_than_it_says) {
    testsupport::writeFile(image, std::string(8 * kSector, '.'));
    write(0, 'a');
    EXPECT_NE(replay({"cut", log, image, "2", "0"}).exitCode, 0);
    EXPECT_NE(testsupport::runProgram({DISK_REPLAY, "count", image}).exitCode, 0);
    ++count;
    EXPECT_NE(replay({"count", log}).exitCode, 0);
    EXPECT_EQ(testsupport::readFile(image), std::string(8 * kSector, '.'));
}

}  // namespace
