#include "twin/emulator/flash_memory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/mcu_image.h"
#include "tests/support/temp_dir.h"
#include "twin/emulator/application.h"

namespace {

using namespace kavro;
using namespace kavro::emulator;
using kavro_test::slurp;
using kavro_test::spill;

constexpr std::size_t kSize = 524288;

class Flash : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(FlashMemory::format(path, flashWith({}), error), Opening::kOpened) << error;
        ASSERT_EQ(flash.open(path, error), Opening::kOpened) << error;
    }
    bool program(std::uint32_t address, const Bytes& bytes) {
        return flash.program(address, bytes.data(), bytes.size(), error);
    }
    std::string inFile(std::size_t address, std::size_t size) const {
        return slurp(path).substr(address, size);
    }

    kavro_test::TempDir directory;
    const std::string path = directory / "flash.bin";
    FlashMemory flash;
    std::string error;
};

TEST_F(Flash, is_as_large_as_the_memory_and_erased_behind_the_boot_loader) {
    const std::string content = slurp(path);
    ASSERT_EQ(content.size(), kSize);
    EXPECT_EQ(content.substr(0, 16), "KAVRO BOOT LOAD\n");
    EXPECT_EQ(content.substr(0x6FF0, 16), "KAVRO BOOT LOAD\n");
    EXPECT_EQ(content.substr(0x7000), std::string(kSize - 0x7000, '\xFF'));
}

TEST_F(Flash, what_is_programmed_is_in_the_file_at_once) {
    ASSERT_TRUE(program(0x8123, {1, 2, 3})) << error;
    EXPECT_EQ(inFile(0x8122, 5), std::string("\xFF\x01\x02\x03\xFF"));
    EXPECT_EQ(flash.bytes()[0x8124], 2);
}

TEST_F(Flash, only_erased_bytes_can_be_programmed) {
    ASSERT_TRUE(program(0x8010, {7}));
    EXPECT_FALSE(program(0x800F, {1, 2, 3}));
    EXPECT_EQ(error, path + ": what is to be programmed is not erased");
    EXPECT_EQ(inFile(0x800F, 3), std::string("\xFF\x07\xFF"));
    EXPECT_FALSE(program(0x8010, {7})) << "not even with the same byte";
}

TEST_F(Flash, erased_sectors_can_be_programmed_again) {
    ASSERT_TRUE(program(0x8FFF, {7, 8}));
    ASSERT_TRUE(flash.erase(0x8000, 0x1000, error)) << error;
    EXPECT_EQ(inFile(0x8FFF, 2), std::string("\xFF\x08"));
    EXPECT_TRUE(program(0x8FFF, {9}));
    EXPECT_TRUE(flash.flush(error)) << error;
}

TEST_F(Flash, the_content_is_there_at_the_next_opening) {
    ASSERT_TRUE(program(0x9000, {5}));
    flash = FlashMemory();
    FlashMemory again;
    ASSERT_EQ(again.open(path, error), Opening::kOpened) << error;
    EXPECT_EQ(again.bytes()[0x9000], 5);
}

TEST_F(Flash, in_use_is_neither_opened_nor_formatted) {
    FlashMemory second;
    EXPECT_EQ(second.open(path, error), Opening::kInUse);
    EXPECT_EQ(error, path + ": is in use by another emulator");
    EXPECT_EQ(FlashMemory::format(path, flashWith(minimalApplication(3)), error), Opening::kInUse);
    EXPECT_EQ(runnableVersion(flash.bytes()), std::nullopt);
    EXPECT_TRUE(second.read(path, error)) << "but it can be looked at: " << error;
}

TEST_F(Flash, of_another_size_is_refused) {
    spill(directory / "short", std::string(kSize - 1, 'x'));
    FlashMemory other;
    EXPECT_EQ(other.open(directory / "short", error), Opening::kFailed);
    EXPECT_EQ(error,
              directory / "short" + ": is no flash memory of 524288 bytes; 'mcu-emulator format' makes one");
}

TEST_F(Flash, without_a_boot_loader_is_refused) {
    spill(directory / "erased", std::string(kSize, '\xFF'));
    FlashMemory other;
    EXPECT_EQ(other.open(directory / "erased", error), Opening::kFailed);
    EXPECT_NE(error.find("holds no boot loader"), std::string::npos) << error;
}

TEST_F(Flash, that_is_missing_is_refused) {
    FlashMemory other;
    EXPECT_EQ(other.open(directory / "nowhere", error), Opening::kFailed);
    EXPECT_EQ(error, directory / "nowhere" + ": cannot be opened: No such file or directory");
}

TEST_F(Flash, formatting_replaces_what_was_there) {
    ASSERT_TRUE(program(0x9000, {5}));
    flash = FlashMemory();
    ASSERT_EQ(FlashMemory::format(path, flashWith({}), error), Opening::kOpened) << error;
    EXPECT_EQ(inFile(0x9000, 1), "\xFF");
}

// --- which application runs ----------------------------------------------------------------------

// Version 8 with four bytes of code; the CRC is that which `crc32` prints for these 20 bytes.
const Bytes kApplication = {'K', 'A', 'V', 'R', 'O', 'M', 'C', 'U', 8, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4};

TEST(RunnableApplication, has_a_record_of_magic_length_and_crc) {
    const Bytes flash = flashWith(kApplication);
    const Bytes record(flash.begin() + 0x7000, flash.begin() + 0x7010);
    const Bytes expected = {'K', 'A', 'V', 'R', 'O', 'A', 'P', 'P', 20, 0, 0, 0, 0xF6, 0xAC, 0xA4, 0xB8};
    EXPECT_EQ(record, expected);
    EXPECT_EQ(flash[0x7010], 0xFF);
    EXPECT_EQ(runnableVersion(flash), 8);
}

TEST(RunnableApplication, is_none_when_any_byte_of_record_header_or_code_is_another) {
    const Bytes good = flashWith(kApplication);
    for (const std::size_t start : {0x7000, 0x8000}) {
        const std::size_t size = start == 0x7000 ? 16 : kApplication.size();
        for (std::size_t address = start; address < start + size; ++address) {
            Bytes bad = good;
            bad[address] ^= 1;
            EXPECT_EQ(runnableVersion(bad), std::nullopt) << std::hex << address;
        }
    }
}

TEST(RunnableApplication, is_none_in_erased_flash) {
    EXPECT_EQ(runnableVersion(flashWith({})), std::nullopt);
}

TEST(RunnableApplication, is_none_without_a_valid_header_though_the_record_holds) {
    Bytes application = kApplication;
    application[12] = 1;
    EXPECT_EQ(runnableVersion(flashWith(application)), std::nullopt);
}

TEST(RunnableApplication, may_fill_the_whole_flash_and_not_more) {
    Bytes application(kSize - 0x8000, 0x55);
    std::copy(kApplication.begin(), kApplication.end(), application.begin());
    Bytes flash = flashWith(application);
    EXPECT_EQ(runnableVersion(flash), 8);
    flash[0x7008 + 3] = 0x01;
    EXPECT_EQ(runnableVersion(flash), std::nullopt) << "a length far beyond the flash";
}

TEST(RunnableApplication, of_a_format_carries_its_version) {
    for (const int version : {0, 1, 255, 256, 2147483647}) {
        EXPECT_EQ(runnableVersion(flashWith(minimalApplication(version))), version);
    }
}

// --- from S-records ------------------------------------------------------------------------------

class FromSRecords : public testing::Test {
  protected:
    std::optional<Bytes> read(const std::string& text) {
        spill(path, text);
        return applicationImage(path, error);
    }
    kavro_test::TempDir directory;
    const std::string path = directory / "app.s19";
    std::string error;
};

constexpr const char* kHeaderLine = "S11380004B4156524F4D43550800000000000000FC\n";

TEST_F(FromSRecords, gaps_are_erased) {
    const std::optional<Bytes> application = read(std::string(kHeaderLine) +
                                                  "S106801201020361\nS90380007C\n"
                                                  "");
    ASSERT_TRUE(application) << error;
    Bytes expected(kApplication.begin(), kApplication.begin() + 16);
    expected.insert(expected.end(), {0xFF, 0xFF, 1, 2, 3});
    EXPECT_EQ(*application, expected);
}

TEST_F(FromSRecords, without_a_header_they_are_refused) {
    EXPECT_FALSE(read("S106801201020361\nS90380007C\n"));
    EXPECT_EQ(error, path + ": no valid application header at 0x00008000");
}

TEST_F(FromSRecords, a_damaged_line_is_named) {
    EXPECT_FALSE(read(std::string(kHeaderLine) + "S106801201020362\nS90380007C\n"));
    EXPECT_NE(error.find(path + ": line 2: "), std::string::npos) << error;
}

}  // namespace
