// Our reader of S-records against srec_cat and srec_cmp of Debian's srecord, which know the format from elsewhere.
// Without them these cases fail.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "base/srecord.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro::Segment;
using testsupport::Bytes;

// What srec_cat is told about the form of a file.
struct Form {
    unsigned addressBytes = 4;
    unsigned lineBytes = 32;
    std::string header;
    bool withStart = false;  // an end record with a start address instead of a count of records
    std::uint32_t startAddress = 0;
};

class SRecordTools : public testing::Test {
  protected:
    std::uint32_t upTo(std::uint32_t limit) {
        return std::uniform_int_distribution<std::uint32_t>(0, limit)(random);
    }

    // Up to six runs of bytes, with gaps of one byte and more, all within addresses of so many bytes.
    std::vector<Segment> randomSegments(unsigned addressBytes) {
        const std::uint64_t limit = std::uint64_t{1} << (8 * addressBytes);
        std::vector<Segment> segments;
        std::uint64_t address = upTo(addressBytes == 2 ? 0x8000 : 0xF00000);
        for (std::uint32_t count = 1 + upTo(5); count > 0; --count) {
            Bytes bytes(1 + upTo(2000));
            for (std::uint8_t& byte : bytes) {
                byte = static_cast<std::uint8_t>(upTo(255));
            }
            if (address + bytes.size() > limit) {
                break;
            }
            segments.push_back({static_cast<std::uint32_t>(address), bytes});
            address = segments.back().end() + 1 + upTo(500);
        }
        return segments;
    }

    Form randomForm() {
        Form form;
        form.addressBytes = 2 + upTo(2);
        form.lineBytes = 1 + upTo(200);
        form.header = std::string(upTo(30), 'h');
        form.withStart = upTo(1) == 1;
        form.startAddress = upTo(0xFFFF);
        return form;
    }

    static int run(const std::string& command) { return std::system(command.c_str()); }

    // Has srec_cat make `path` of the segments' plain bytes.
    void makeFile(const std::vector<Segment>& segments, const Form& form) {
        std::string command = "srec_cat";
        for (const Segment& segment : segments) {
            const std::string binary = directory / std::to_string(segment.address) + ".bin";
            testsupport::writeFile(binary, std::string(segment.bytes.begin(), segment.bytes.end()));
            command += " " + binary + " -binary -offset " + std::to_string(segment.address);
        }
        command += " -o " + path + " -motorola -address-length=" + std::to_string(form.addressBytes) +
                   " -obs=" + std::to_string(form.lineBytes);
        command += form.header.empty() ? " -disable=header" : " -header=" + form.header;
        if (form.withStart) {
            command +=
                " -execution-start-address=" + std::to_string(form.startAddress) + " -disable=data-count";
        }
        ASSERT_EQ(run(command), 0) << command;
    }

    static void expectEqual(const std::vector<Segment>& read, const std::vector<Segment>& expected) {
        ASSERT_EQ(read.size(), expected.size());
        for (std::size_t index = 0; index < read.size(); ++index) {
            EXPECT_EQ(read[index].address, expected[index].address);
            EXPECT_TRUE(read[index].bytes == expected[index].bytes);
        }
    }

    kavro_test::TempDir directory;
    const std::string path = directory / "file.s19";
    std::mt19937 random{20240229};
    std::string error;
};

TEST_F(SRecordTools, files_that_srec_cat_writes_are_read_byte_for_byte) {
    for (int round = 0; round < 60; ++round) {
        const Form form = randomForm();
        const std::vector<Segment> segments = randomSegments(form.addressBytes);
        ASSERT_NO_FATAL_FAILURE(makeFile(segments, form));
        const auto file = kavro::readSRecords(path, error);
        ASSERT_TRUE(file) << error;
        EXPECT_EQ(file->header, form.header);
        EXPECT_EQ(file->startAddress, form.withStart ? form.startAddress : 0);
        ASSERT_NO_FATAL_FAILURE(expectEqual(file->segments, segments));
    }
}

TEST_F(SRecordTools, srec_cmp_finds_no_difference_after_reading_and_writing) {
    const std::string again = directory / "again.s19";
    for (int round = 0; round < 20; ++round) {
        Form form = randomForm();
        form.withStart = true;  // srec_cmp compares the start addresses, too
        form.startAddress = 0;
        ASSERT_NO_FATAL_FAILURE(makeFile(randomSegments(form.addressBytes), form));
        auto file = kavro::readSRecords(path, error);
        ASSERT_TRUE(file) << error;
        testsupport::writeFile(again, testsupport::sRecordFile(file->segments));
        EXPECT_EQ(run("srec_cmp " + path + " " + again), 0);
        file->segments.back().bytes.back() ^= 1;
        testsupport::writeFile(again, testsupport::sRecordFile(file->segments));
        EXPECT_NE(run("srec_cmp " + path + " " + again + " 2>/dev/null"), 0) << "it compares nothing";
    }
}

TEST_F(SRecordTools, file_with_a_wrong_checksum_is_refused_by_both) {
    ASSERT_NO_FATAL_FAILURE(makeFile(randomSegments(4), {}));
    std::string text = testsupport::readFile(path);
    text[text.find("S3") + 13] = text[text.find("S3") + 13] == '0' ? '1' : '0';
    testsupport::writeFile(path, text);
    EXPECT_FALSE(kavro::readSRecords(path, error));
    EXPECT_NE(error.find("the checksum is wrong"), std::string::npos) << error;
    EXPECT_NE(run("srec_cat " + path + " -o /dev/null -binary 2>/dev/null"), 0);
}

}  // namespace
