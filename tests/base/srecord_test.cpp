#include "base/srecord.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"
#include "tests/support/temp_dir.h"

namespace {

using testsupport::Bytes;
using testsupport::sRecord;

const std::string kHeader = "S00600004844521B\n";  // "HDR"
const std::string kEnd = "S9030000FC\n";

class SRecords : public testing::Test {
  protected:
    std::optional<kavro::SRecordFile> read(const std::string& text,
                                           std::size_t limit = kavro::kSRecordDataLimit) {
        testsupport::writeFile(path, text);
        error.clear();
        return kavro::readSRecords(path, error, {}, limit);
    }

    // The error must name the file and continue with `after`.
    void expectRefused(const std::string& text, const std::string& after) {
        EXPECT_FALSE(read(text)) << text;
        EXPECT_EQ(error, path + ": " + after);
    }

    kavro_test::TempDir directory;
    const std::string path = directory / "file.s19";
    std::string error;
};

TEST_F(SRecords, header_data_and_start_address_are_read) {
    const auto file = read(kHeader + "S1051000AABB85\n" + "S9031000EC\n");
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->header, "HDR");
    ASSERT_EQ(file->segments.size(), 1U);
    EXPECT_EQ(file->segments[0].address, 0x1000U);
    EXPECT_EQ(file->segments[0].bytes, (Bytes{0xAA, 0xBB}));
    EXPECT_EQ(file->startAddress, 0x1000U);
}

TEST_F(SRecords, addresses_of_two_three_and_four_bytes_are_read) {
    const auto file = read(sRecord(1, 0x1234, {1}) + "\n" + sRecord(2, 0x123456, {2}) + "\n" +
                           sRecord(3, 0x12345678, {3}) + "\n" + sRecord(7, 0x87654321) + "\n");
    ASSERT_TRUE(file) << error;
    ASSERT_EQ(file->segments.size(), 3U);
    EXPECT_EQ(file->segments[0].address, 0x1234U);
    EXPECT_EQ(file->segments[1].address, 0x123456U);
    EXPECT_EQ(file->segments[2].address, 0x12345678U);
    EXPECT_EQ(file->startAddress, 0x87654321U);
}

TEST_F(SRecords, start_address_of_three_bytes_is_read) {
    const auto file = read(sRecord(2, 0x20000, {1}) + "\n" + sRecord(8, 0x20000) + "\n");
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->startAddress, 0x20000U);
}

TEST_F(SRecords, neighbouring_records_in_any_order_become_one_segment) {
    const auto file = read(sRecord(1, 0x12, {3, 4}) + "\n" + sRecord(1, 0x10, {1, 2}) + "\n" +
                           sRecord(1, 0x20, {9}) + "\n" + sRecord(1, 0x14, {5}) + "\n" + kEnd);
    ASSERT_TRUE(file) << error;
    ASSERT_EQ(file->segments.size(), 2U);
    EXPECT_EQ(file->segments[0].address, 0x10U);
    EXPECT_EQ(file->segments[0].bytes, (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(file->segments[1].address, 0x20U);
}

TEST_F(SRecords, cr_lf_line_ends_are_read) {
    const auto file = read("S1051000AABB85\r\nS9030000FC\r\n");
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->segments[0].bytes, (Bytes{0xAA, 0xBB}));
}

TEST_F(SRecords, last_line_needs_no_line_end) {
    EXPECT_TRUE(read("S1051000AABB85\nS9030000FC")) << error;
    EXPECT_TRUE(read("S1051000AABB85\r\nS9030000FC\r")) << error;
}

TEST_F(SRecords, digits_in_lower_case_and_empty_lines_are_read) {
    EXPECT_TRUE(read("S1051000aabb85\n\nS9030000fc\n\n")) << error;
}

TEST_F(SRecords, longest_possible_record_is_read) {
    const auto file = read(sRecord(3, 0x1000, Bytes(250, 7)) + "\r\n" + kEnd);
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->segments[0].bytes.size(), 250U);
}

TEST_F(SRecords, record_at_the_end_of_the_address_space_is_read) {
    const auto file = read(sRecord(3, 0xFFFFFFFE, {1, 2}) + "\n" + kEnd);
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->segments[0].end(), std::uint64_t{1} << 32);
}

TEST_F(SRecords, right_counts_of_both_sizes_are_accepted) {
    EXPECT_TRUE(
        read(kHeader + sRecord(1, 0, {1}) + "\n" + sRecord(1, 8, {1}) + "\n" + sRecord(5, 2) + "\n" + kEnd))
        << error;
    EXPECT_TRUE(read(sRecord(1, 0, {1}) + "\n" + sRecord(6, 1) + "\n" + kEnd)) << error;
}

TEST_F(SRecords, output_of_objcopy_is_read_back_byte_for_byte) {
    std::string content;
    for (unsigned index = 0; index < 100001; ++index) {
        content += static_cast<char>(index * 31 + index / 256);
    }
    testsupport::writeFile(directory / "content.bin", content);
    const std::string command = "objcopy -I binary -O srec --change-addresses 0x8000 " +
                                (directory / "content.bin") + " " + (directory / "content.s19");
    ASSERT_EQ(std::system(command.c_str()), 0);
    const auto file = kavro::readSRecords(directory / "content.s19", error);
    ASSERT_TRUE(file) << error;
    ASSERT_EQ(file->segments.size(), 1U);
    EXPECT_EQ(file->segments[0].address, 0x8000U);
    EXPECT_TRUE(file->segments[0].bytes == Bytes(content.begin(), content.end()));
}

TEST_F(SRecords, missing_file_is_refused) {
    EXPECT_FALSE(kavro::readSRecords(directory / "none", error));
    EXPECT_EQ(error, (directory / "none") + ": cannot be opened: No such file or directory");
}

TEST_F(SRecords, directory_and_fifo_are_refused) {
    EXPECT_FALSE(kavro::readSRecords(directory / "", error));
    EXPECT_EQ(error, (directory / "") + ": is no regular file");
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(kavro::readSRecords(directory / "fifo", error));
    EXPECT_EQ(error, (directory / "fifo") + ": is no regular file");
}

TEST_F(SRecords, empty_file_is_refused) {
    expectRefused("", "line 0: holds no record");
    expectRefused("\n\n", "line 2: holds no record");
}

TEST_F(SRecords, line_that_is_no_record_is_refused) {
    expectRefused(kHeader + "T1051000AABB85\n" + kEnd, "line 2: the record does not begin with 'S'");
    expectRefused(" " + kEnd, "line 1: the record does not begin with 'S'");
}

TEST_F(SRecords, unknown_types_are_refused) {
    expectRefused(kHeader + sRecord(4, 0) + "\n" + kEnd, "line 2: unknown record type 'S4'");
    expectRefused("SA030000FC\n", "line 1: unknown record type 'SA'");
}

TEST_F(SRecords, character_that_is_no_hexadecimal_digit_is_refused) {
    expectRefused("S1051000AAGB85\n" + kEnd, "line 1: a character is no hexadecimal digit");
    expectRefused("S1051000AABB 5\n" + kEnd, "line 1: a character is no hexadecimal digit");
    expectRefused(std::string("S1051000AA\0B85\n", 15) + kEnd, "line 1: a character is no hexadecimal digit");
}

TEST_F(SRecords, wrong_byte_count_is_refused) {
    expectRefused("S1061000AABB85\n" + kEnd, "line 1: the byte count says 6, there are 5");
    expectRefused("S1041000AABB85\n" + kEnd, "line 1: the byte count says 4, there are 5");
}

TEST_F(SRecords, byte_count_too_small_for_the_type_is_refused) {
    expectRefused("S10210ED\n" + kEnd, "line 1: the byte count is too small for the record's type");
    expectRefused("S100\n" + kEnd, "line 1: the byte count is too small for the record's type");
}

TEST_F(SRecords, record_cut_short_is_refused) {
    expectRefused(kHeader + "S1051000AABB8\n" + kEnd, "line 2: the record is cut short");
    expectRefused("S\n" + kEnd, "line 1: the record is cut short");
}

TEST_F(SRecords, wrong_checksum_is_refused) {
    expectRefused(kHeader + "S1051000AABB84\n" + kEnd, "line 2: the checksum is wrong");
    expectRefused(kHeader + "S1051000ABBB85\n" + kEnd, "line 2: the checksum is wrong");
    expectRefused("S1051000AABB85\nS9030001FC\n", "line 2: the checksum is wrong");
}

TEST_F(SRecords, every_single_changed_digit_behind_the_type_is_noticed) {
    const std::string good = kHeader + "S1051000AABB85\n" + kEnd;
    for (std::size_t index = 0; index < good.size(); ++index) {
        const bool isType = index > 0 && good[index - 1] == 'S';  // which no checksum covers
        if (good[index] == '\n' || isType) {
            continue;
        }
        std::string bad = good;
        bad[index] = bad[index] == '3' ? '8' : '3';
        EXPECT_FALSE(read(bad)) << bad;
    }
}

TEST_F(SRecords, line_longer_than_any_record_is_refused) {
    expectRefused(kHeader + std::string(515, '0') + "\n" + kEnd,
                  "line 2: the line is longer than any record");
    expectRefused(std::string(1000000, 'S'), "line 1: the line is longer than any record");
}

TEST_F(SRecords, wrong_count_of_records_is_refused) {
    expectRefused(sRecord(1, 0, {1}) + "\n" + sRecord(5, 2) + "\n" + kEnd,
                  "line 2: the count says 2 data records, there are 1");
    expectRefused(sRecord(1, 0, {1}) + "\n" + sRecord(6, 0) + "\n" + kEnd,
                  "line 2: the count says 0 data records, there are 1");
}

TEST_F(SRecords, data_behind_the_count_is_refused) {
    expectRefused(sRecord(5, 0) + "\n" + sRecord(1, 0, {1}) + "\n" + kEnd,
                  "line 2: only the end record may follow the count of records");
}

TEST_F(SRecords, count_and_end_records_with_data_are_refused) {
    expectRefused(sRecord(1, 0, {1}) + "\n" + sRecord(5, 1, {0}) + "\n" + kEnd,
                  "line 2: a count record holds data");
    expectRefused(sRecord(1, 0, {1}) + "\n" + sRecord(9, 0, {0}) + "\n", "line 2: the end record holds data");
}

TEST_F(SRecords, count_of_records_does_for_a_missing_end_record) {
    const auto file = read(kHeader + "S1051000AABB85\n" + sRecord(5, 1) + "\n");
    ASSERT_TRUE(file) << error;
    EXPECT_EQ(file->segments.size(), 1U);
    EXPECT_EQ(file->startAddress, 0U);
}

TEST_F(SRecords, neither_end_record_nor_count_is_refused) {
    expectRefused(kHeader + "S1051000AABB85\n",
                  "line 2: the end record is missing, and there is no count of records");
}

TEST_F(SRecords, record_behind_the_end_record_is_refused) {
    expectRefused(kEnd + "S1051000AABB85\n", "line 2: a record follows the end record");
    expectRefused(kEnd + kEnd, "line 2: a record follows the end record");
}

TEST_F(SRecords, header_that_is_not_first_is_refused) {
    expectRefused(kHeader + kHeader + kEnd, "line 2: the header record is not the first record");
    expectRefused("S1051000AABB85\n" + kHeader + kEnd, "line 2: the header record is not the first record");
}

TEST_F(SRecords, overlapping_data_is_refused_with_both_lines) {
    expectRefused(kHeader + sRecord(1, 0x10, {1, 2, 3}) + "\n" + sRecord(1, 0x20, {1}) + "\n" +
                      sRecord(1, 0x12, {3}) + "\n" + kEnd,
                  "line 4: the data overlaps that of line 2");
    expectRefused(sRecord(1, 0x10, {1}) + "\n" + sRecord(1, 0x10, {1}) + "\n" + kEnd,
                  "line 2: the data overlaps that of line 1");
}

TEST_F(SRecords, data_beyond_the_address_space_is_refused) {
    expectRefused(sRecord(3, 0xFFFFFFFF, {1, 2}) + "\n" + kEnd,
                  "line 1: data at 0xFFFFFFFF..0x100000000 is outside of 0x00000000..0xFFFFFFFF");
}

TEST_F(SRecords, data_outside_of_the_range_is_refused_with_its_line) {
    const kavro::AddressRange range = {0x1000, 0x10};
    const auto readIn = [&](std::uint32_t address, const Bytes& data) {
        testsupport::writeFile(
            path, kHeader + sRecord(1, 0x1004, {1}) + "\n" + sRecord(1, address, data) + "\n" + kEnd);
        return kavro::readSRecords(path, error, range);
    };
    EXPECT_TRUE(readIn(0x1000, {1, 2})) << error;
    EXPECT_TRUE(readIn(0x100F, {1})) << error;
    EXPECT_FALSE(readIn(0x0FFF, {1, 2}));
    EXPECT_EQ(error, path + ": line 3: data at 0x00000FFF..0x00001000 is outside of 0x00001000..0x0000100F");
    EXPECT_FALSE(readIn(0x100F, {1, 2}));
    EXPECT_EQ(error, path + ": line 3: data at 0x0000100F..0x00001010 is outside of 0x00001000..0x0000100F");
}

TEST_F(SRecords, more_data_than_the_limit_is_refused) {
    const std::string text = sRecord(1, 0x10, {1, 2, 3}) + "\n" + sRecord(1, 0x20, {1, 2}) + "\n" + kEnd;
    EXPECT_TRUE(read(text, 5)) << error;
    EXPECT_FALSE(read(text, 4));
    EXPECT_NE(error.find("line 2: the file holds more data than the limit of 4 bytes"), std::string::npos)
        << error;
}

}  // namespace
