#include "twin/emulator/microcontroller.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/hex_text.h"
#include "tests/support/temp_dir.h"
#include "twin/emulator/application.h"

namespace {

using namespace kavro;
using namespace kavro::emulator;
using testsupport::bytesOf;
using testsupport::hexOf;

constexpr const char* kLinkOn = "31 01 02 01";
constexpr const char* kLinkOff = "31 02 02 01";
constexpr const char* kProgramming = "10 02";
constexpr const char* kDefault = "10 01";
constexpr const char* kVersion = "22 F1 89";
constexpr const char* kSession = "22 F1 86";
constexpr const char* kEraseAll = "31 01 FF 00 00 00 80 00 00 07 80 00";
constexpr const char* kMakeRun = "31 01 FF 01";
constexpr const char* kReset = "11 01";

// Twenty bytes of application of version 9, and eight bytes of flash driver.
constexpr const char* kApplication = "4B 41 56 52 4F 4D 43 55 09 00 00 00 00 00 00 00 01 02 03 04";
constexpr const char* kDriver = "A0 A1 A2 A3 A4 A5 A6 A7";

std::string number(std::uint32_t value) {
    return hexOf({static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
                  static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)});
}

// The request checkMemory for memory that should hold these bytes.
std::string checkRequest(std::uint32_t address, const std::string& bytes) {
    const Bytes content = bytesOf(bytes);
    const auto crc = static_cast<std::uint32_t>(crc32_z(0, content.data(), content.size()));
    return "31 01 02 02 " + number(address) + " " + number(static_cast<std::uint32_t>(content.size())) + " " +
           number(crc);
}

std::string downloadRequest(std::uint32_t address, std::size_t length) {
    return "34 00 44 " + number(address) + " " + number(static_cast<std::uint32_t>(length));
}

// A microcontroller that runs an application of version 8.
class Mcu : public testing::Test {
  public:
    void SetUp() override { powerOn(flashWith(minimalApplication(8))); }

    void powerOn(const Bytes& content) {
        std::string error;
        mcu.reset();
        flash = std::make_unique<FlashMemory>();
        ASSERT_EQ(FlashMemory::format(path, content, error), Opening::kOpened) << error;
        ASSERT_EQ(flash->open(path, error), Opening::kOpened) << error;
        mcu = std::make_unique<Microcontroller>(
            *flash, Surroundings{[this] { ++resetsOfMainProcessor; },
                                 [this] { return ++blocks == faultyBlock ? fault : BlockFault::kNone; },
                                 [this](const std::string& line) { told.push_back(line); }});
    }

    std::string ask(const std::string& request) { return hexOf(mcu->answer(bytesOf(request), now)); }

    void wait(int milliseconds) {
        now += Milliseconds(milliseconds);
        mcu->advance(now);
    }

    // The states that the rows of the tables need, each built on the one before.
    void running() {}
    void linked() { ASSERT_EQ(ask(kLinkOn), "71 01 02 01"); }
    void programming() {
        linked();
        ASSERT_EQ(ask(kProgramming), "50 02 00 32 01 F4");
    }
    void driverLoaded() {
        programming();
        download(0x20000000, kDriver);
    }
    void driverGood() {
        driverLoaded();
        ASSERT_EQ(ask(checkRequest(0x20000000, kDriver)), "71 01 02 02 00");
    }
    void erased() {
        driverGood();
        ASSERT_EQ(ask(kEraseAll), "71 01 FF 00 00");
    }
    void downloading() {
        erased();
        ASSERT_EQ(ask(downloadRequest(0x8000, 20)), "74 20 04 02");
    }
    void downloaded() {
        erased();
        download(0x8000, kApplication);
    }
    void checked() {
        downloaded();
        ASSERT_EQ(ask(checkRequest(0x8000, kApplication)), "71 01 02 02 00");
    }

    void download(std::uint32_t address, const std::string& bytes) {
        ASSERT_EQ(ask(downloadRequest(address, bytesOf(bytes).size())), "74 20 04 02");
        ASSERT_EQ(ask("36 01 " + bytes), "76 01");
        ASSERT_EQ(ask("37"), "77");
    }

    void restart() {
        ASSERT_EQ(ask(kReset), "51 01");
        wait(10);
        wait(50);
    }

  protected:
    kavro_test::TempDir directory;
    const std::string path = directory / "flash.bin";
    std::unique_ptr<FlashMemory> flash;
    std::unique_ptr<Microcontroller> mcu;
    Time now{std::chrono::hours(1)};
    int resetsOfMainProcessor = 0;
    int blocks = 0;
    int faultyBlock = 0;
    BlockFault fault = BlockFault::kNone;
    std::vector<std::string> told;
};

// --- single requests -----------------------------------------------------------------------------

struct Row {
    const char* name;
    void (Mcu::*prepare)();
    std::string request;
    std::string answer;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class Request : public Mcu, public testing::WithParamInterface<Row> {};

TEST_P(Request, is_answered_as_the_table_says) {
    (this->*GetParam().prepare)();
    if (HasFatalFailure()) {
        return;
    }
    EXPECT_EQ(ask(GetParam().request), GetParam().answer);
}

const std::vector<Row> kServices = {
    {"tester_present", &Mcu::running, "3E 00", "7E 00"},
    {"tester_present_of_another_kind", &Mcu::running, "3E 01", "7F 3E 12"},
    {"tester_present_without_kind", &Mcu::running, "3E", "7F 3E 13"},
    {"default_session", &Mcu::running, "10 01", "50 01 00 32 01 F4"},
    {"programming_session", &Mcu::linked, "10 02", "50 02 00 32 01 F4"},
    {"programming_session_without_the_link", &Mcu::running, "10 02", "7F 10 22"},
    {"another_session", &Mcu::linked, "10 03", "7F 10 12"},
    {"session_of_three_bytes", &Mcu::linked, "10 02 00", "7F 10 13"},
    {"reset", &Mcu::running, "11 01", "51 01"},
    {"reset_of_another_kind", &Mcu::running, "11 02", "7F 11 12"},
    {"reset_without_kind", &Mcu::running, "11", "7F 11 13"},
    {"active_session", &Mcu::running, "22 F1 86", "62 F1 86 01"},
    {"active_session_while_programming", &Mcu::programming, "22 F1 86", "62 F1 86 02"},
    {"version", &Mcu::running, "22 F1 89", "62 F1 89 00 00 00 08"},
    {"version_while_programming", &Mcu::programming, "22 F1 89", "7F 22 22"},
    {"another_identifier", &Mcu::running, "22 F1 90", "7F 22 31"},
    {"two_identifiers", &Mcu::running, "22 F1 86 F1 89", "7F 22 13"},
    {"half_an_identifier", &Mcu::running, "22 F1", "7F 22 13"},
    {"another_service", &Mcu::running, "27 01", "7F 27 11"},
    {"service_zero", &Mcu::running, "00", "7F 00 11"},
    {"link_on", &Mcu::running, "31 01 02 01", "71 01 02 01"},
    {"link_off", &Mcu::running, "31 02 02 01", "71 02 02 01"},
    {"link_with_a_byte_too_many", &Mcu::running, "31 01 02 01 00", "7F 31 13"},
    {"reset_of_the_main_processor", &Mcu::running, "31 01 02 10", "71 01 02 10"},
    {"stop_of_a_routine_that_cannot_be_stopped", &Mcu::running, "31 02 02 10", "7F 31 12"},
    {"another_kind_of_routine_control", &Mcu::running, "31 03 02 01", "7F 31 12"},
    {"another_routine", &Mcu::running, "31 01 02 03", "7F 31 31"},
    {"half_a_routine", &Mcu::running, "31 01 02", "7F 31 13"},
    {"download_outside_of_the_session", &Mcu::running, downloadRequest(0x8000, 20), "7F 34 7F"},
    {"data_outside_of_the_session", &Mcu::running, "36 01 00", "7F 36 7F"},
    {"exit_outside_of_the_session", &Mcu::running, "37", "7F 37 7F"},
    {"check_outside_of_the_session", &Mcu::running, checkRequest(0x8000, "00"), "7F 31 7F"},
    {"erase_outside_of_the_session", &Mcu::running, kEraseAll, "7F 31 7F"},
    {"making_run_outside_of_the_session", &Mcu::running, kMakeRun, "7F 31 7F"},
    {"the_link_alone_is_no_session", &Mcu::linked, kEraseAll, "7F 31 7F"},
};

const std::vector<Row> kDownload = {
    {"to_ram", &Mcu::programming, downloadRequest(0x20000000, 0x10000), "74 20 04 02"},
    {"to_ram_up_to_its_end", &Mcu::programming, downloadRequest(0x2000FFFF, 1), "74 20 04 02"},
    {"beyond_ram", &Mcu::programming, downloadRequest(0x2000FFFF, 2), "7F 34 31"},
    {"in_front_of_ram", &Mcu::programming, downloadRequest(0x1FFFFFFF, 2), "7F 34 31"},
    {"to_flash", &Mcu::erased, downloadRequest(0x8000, 0x78000), "74 20 04 02"},
    {"to_flash_that_is_not_erased", &Mcu::driverGood, downloadRequest(0x8000, 20), "7F 34 24"},
    {"to_the_boot_loader", &Mcu::erased, downloadRequest(0x0000, 20), "7F 34 31"},
    {"to_the_record", &Mcu::erased, downloadRequest(0x7000, 16), "7F 34 31"},
    {"beyond_flash", &Mcu::erased, downloadRequest(0x8000, 0x78001), "7F 34 31"},
    {"with_an_end_beyond_all_addresses", &Mcu::erased, downloadRequest(0x8000, 0xFFFFFFFF), "7F 34 31"},
    {"of_nothing", &Mcu::erased, downloadRequest(0x8000, 0), "7F 34 70"},
    {"within_another", &Mcu::downloading, downloadRequest(0x8000, 20), "7F 34 24"},
    {"compressed", &Mcu::erased, "34 10 44 00 00 80 00 00 00 00 10", "7F 34 70"},
    {"with_short_numbers", &Mcu::erased, "34 00 22 80 00 00 10", "7F 34 70"},
    {"cut_off", &Mcu::erased, "34 00 44 00 00 80 00 00 00 00", "7F 34 13"},
    {"without_format", &Mcu::erased, "34 00", "7F 34 13"},
};

const std::vector<Row> kTransfer = {
    {"data_without_a_download", &Mcu::erased, "36 01 00", "7F 36 24"},
    {"data_with_the_wrong_counter", &Mcu::downloading, "36 02 00", "7F 36 73"},
    {"data_with_the_counter_before_the_first", &Mcu::downloading, "36 00 00", "7F 36 73"},
    {"no_data", &Mcu::downloading, "36 01", "7F 36 13"},
    {"more_data_than_announced", &Mcu::downloading, std::string("36 01 ") + kApplication + " 05", "7F 36 71"},
    {"data_after_the_download", &Mcu::downloaded, "36 02 00", "7F 36 24"},
    {"exit_without_a_download", &Mcu::erased, "37", "7F 37 24"},
    {"exit_before_the_data", &Mcu::downloading, "37", "7F 37 24"},
    {"exit_after_the_exit", &Mcu::downloaded, "37", "7F 37 24"},
    {"exit_with_a_parameter", &Mcu::downloading, "37 00", "7F 37 13"},
};

const std::vector<Row> kRoutines = {
    {"check_of_ram", &Mcu::driverLoaded, checkRequest(0x20000000, kDriver), "71 01 02 02 00"},
    {"check_of_ram_that_holds_something_else", &Mcu::driverLoaded,
     checkRequest(0x20000000, "A0 A1 A2 A3 A4 A5 A6 A8"), "71 01 02 02 01"},
    {"check_of_flash", &Mcu::downloaded, checkRequest(0x8000, kApplication), "71 01 02 02 00"},
    {"check_of_flash_by_a_crc_written_by_hand", &Mcu::downloaded,
     "31 01 02 02 00 00 80 10 00 00 00 04 B6 3C FB CD", "71 01 02 02 00"},
    {"check_of_the_boot_loader", &Mcu::programming, checkRequest(0, "4B 41 56 52 4F"), "71 01 02 02 00"},
    {"check_of_nothing", &Mcu::programming, "31 01 02 02 00 00 80 00 00 00 00 00 00 00 00 00", "7F 31 31"},
    {"check_beyond_flash", &Mcu::programming, checkRequest(0x7FFFF, "FF FF"), "7F 31 31"},
    {"check_beyond_ram", &Mcu::programming, checkRequest(0x2000FFFF, "00 00"), "7F 31 31"},
    {"check_without_crc", &Mcu::programming, "31 01 02 02 00 00 80 00 00 00 00 10", "7F 31 13"},
    {"check_within_a_download", &Mcu::downloading, checkRequest(0x8000, "FF"), "7F 31 24"},
    {"erase", &Mcu::driverGood, kEraseAll, "71 01 FF 00 00"},
    {"erase_of_one_sector", &Mcu::driverGood, "31 01 FF 00 00 00 90 00 00 00 10 00", "71 01 FF 00 00"},
    {"erase_without_a_driver", &Mcu::programming, kEraseAll, "7F 31 24"},
    {"erase_without_a_check_of_the_driver", &Mcu::driverLoaded, kEraseAll, "7F 31 24"},
    {"erase_of_half_a_sector", &Mcu::driverGood, "31 01 FF 00 00 00 80 00 00 00 08 00", "7F 31 31"},
    {"erase_from_within_a_sector", &Mcu::driverGood, "31 01 FF 00 00 00 88 00 00 00 10 00", "7F 31 31"},
    {"erase_of_nothing", &Mcu::driverGood, "31 01 FF 00 00 00 80 00 00 00 00 00", "7F 31 31"},
    {"erase_of_the_boot_loader", &Mcu::driverGood, "31 01 FF 00 00 00 60 00 00 00 10 00", "7F 31 31"},
    {"erase_of_the_record", &Mcu::driverGood, "31 01 FF 00 00 00 70 00 00 00 20 00", "7F 31 31"},
    {"erase_beyond_flash", &Mcu::driverGood, "31 01 FF 00 00 07 F0 00 00 00 20 00", "7F 31 31"},
    {"erase_of_ram", &Mcu::driverGood, "31 01 FF 00 20 00 00 00 00 00 10 00", "7F 31 31"},
    {"erase_without_length", &Mcu::driverGood, "31 01 FF 00 00 00 80 00", "7F 31 13"},
    {"erase_within_a_download", &Mcu::downloading, kEraseAll, "7F 31 24"},
    {"making_run", &Mcu::checked, kMakeRun, "71 01 FF 01 00"},
    {"making_run_without_a_check", &Mcu::downloaded, kMakeRun, "7F 31 24"},
    {"making_run_after_a_check_of_the_driver", &Mcu::driverGood, kMakeRun, "71 01 FF 01 01"},
    {"making_run_with_a_parameter", &Mcu::checked, "31 01 FF 01 00", "7F 31 13"},
};

std::string nameOf(const testing::TestParamInfo<Row>& row) {
    return row.param.name;
}

INSTANTIATE_TEST_SUITE_P(Services, Request, testing::ValuesIn(kServices), nameOf);
INSTANTIATE_TEST_SUITE_P(Download, Request, testing::ValuesIn(kDownload), nameOf);
INSTANTIATE_TEST_SUITE_P(Transfer, Request, testing::ValuesIn(kTransfer), nameOf);
INSTANTIATE_TEST_SUITE_P(Routines, Request, testing::ValuesIn(kRoutines), nameOf);

// --- sessions and resets -------------------------------------------------------------------------

TEST_F(Mcu, without_an_application_everything_works_but_the_version) {
    powerOn(flashWith({}));
    EXPECT_EQ(ask(kVersion), "7F 22 22");
    EXPECT_EQ(ask("3E 00"), "7E 00");
    checked();
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 00");
}

TEST_F(Mcu, the_application_stays_left_until_a_reset) {
    programming();
    EXPECT_EQ(ask(kDefault), "50 01 00 32 01 F4");
    EXPECT_EQ(ask(kVersion), "7F 22 22");
    restart();
    EXPECT_EQ(ask(kVersion), "62 F1 89 00 00 00 08");
}

TEST_F(Mcu, a_reset_comes_after_its_answer_and_takes_a_moment) {
    programming();
    EXPECT_EQ(ask(kReset), "51 01");
    EXPECT_TRUE(mcu->hears(now));
    EXPECT_EQ(mcu->starts(), 1U);
    wait(10);
    EXPECT_FALSE(mcu->hears(now));
    EXPECT_EQ(mcu->starts(), 2U);
    wait(49);
    EXPECT_FALSE(mcu->hears(now));
    wait(1);
    EXPECT_TRUE(mcu->hears(now));
}

TEST_F(Mcu, a_reset_switches_the_programming_link_off) {
    linked();
    restart();
    EXPECT_EQ(ask(kProgramming), "7F 10 22");
}

TEST_F(Mcu, a_reset_that_is_refused_does_not_happen) {
    EXPECT_EQ(ask("11 03"), "7F 11 12");
    wait(1000);
    EXPECT_EQ(mcu->starts(), 1U);
}

TEST_F(Mcu, the_session_lasts_as_long_as_something_is_heard) {
    driverGood();
    for (int count = 0; count < 5; ++count) {
        wait(4999);
        EXPECT_EQ(ask("3E 00"), "7E 00");
    }
    EXPECT_EQ(ask(kEraseAll), "71 01 FF 00 00");
}

TEST_F(Mcu, the_session_ends_when_nothing_is_heard_for_5_s) {
    driverGood();
    wait(5000);
    EXPECT_EQ(ask(kSession), "62 F1 86 01");
    EXPECT_EQ(ask(kEraseAll), "7F 31 7F");
}

TEST_F(Mcu, the_timeout_counts_from_the_answer) {
    programming();
    mcu->answered(now + Milliseconds(3000));
    wait(7999);
    EXPECT_EQ(ask(kSession), "62 F1 86 02");
}

TEST_F(Mcu, without_the_link_no_session_lasts) {
    driverGood();
    EXPECT_EQ(ask(kLinkOff), "71 02 02 01");
    EXPECT_EQ(ask(kSession), "62 F1 86 01");
    EXPECT_EQ(ask(kEraseAll), "7F 31 7F");
}

TEST_F(Mcu, the_link_outlasts_the_session) {
    programming();
    wait(60000);
    EXPECT_EQ(ask(kProgramming), "50 02 00 32 01 F4");
}

// What ends a programming, and with it the download and everything in RAM.
struct Ending {
    const char* name;
    std::vector<std::string> requests;
    int waitMs;
};

void PrintTo(const Ending& ending, std::ostream* out) {
    *out << ending.name;
}

class EndOfProgramming : public Mcu, public testing::WithParamInterface<Ending> {
  protected:
    void end() {
        for (const std::string& request : GetParam().requests) {
            ASSERT_NE(ask(request).substr(0, 2), "7F");
        }
        wait(GetParam().waitMs);
        mcu->advance(now += Milliseconds(100));
        ASSERT_EQ(ask(kLinkOn), "71 01 02 01");
        ASSERT_EQ(ask(kProgramming), "50 02 00 32 01 F4");
    }
};

TEST_P(EndOfProgramming, ends_the_download) {
    downloading();
    end();
    EXPECT_EQ(ask("36 01 00"), "7F 36 24");
    EXPECT_EQ(ask(downloadRequest(0x20000000, 4)), "74 20 04 02");
}

TEST_P(EndOfProgramming, forgets_the_flash_driver_and_what_was_erased) {
    erased();
    end();
    EXPECT_EQ(ask(checkRequest(0x20000000, kDriver)), "71 01 02 02 01");
    EXPECT_EQ(ask(downloadRequest(0x8000, 20)), "7F 34 24");
    EXPECT_EQ(ask(kEraseAll), "7F 31 24");
}

TEST_P(EndOfProgramming, forgets_the_check) {
    checked();
    end();
    EXPECT_EQ(ask(kMakeRun), "7F 31 24");
}

INSTANTIATE_TEST_SUITE_P(By, EndOfProgramming,
                         testing::Values(Ending{"default_session", {kDefault}, 0},
                                         Ending{"programming_session", {kProgramming}, 0},
                                         Ending{"link_off", {kLinkOff}, 0}, Ending{"reset", {kReset}, 10},
                                         Ending{"silence", {}, 5000}),
                         [](const auto& ending) { return std::string(ending.param.name); });

// --- transfer ------------------------------------------------------------------------------------

TEST_F(Mcu, blocks_may_have_1026_bytes_and_no_more) {
    programming();
    ASSERT_EQ(ask(downloadRequest(0x20000000, 2000)), "74 20 04 02");
    Bytes block(1027, 0x11);
    block[0] = 0x36;
    block[1] = 0x01;
    EXPECT_EQ(hexOf(mcu->answer(block, now)), "7F 36 13");
    block.pop_back();
    EXPECT_EQ(hexOf(mcu->answer(block, now)), "76 01");
}

TEST_F(Mcu, blocks_lie_one_behind_the_other) {
    erased();
    ASSERT_EQ(ask(downloadRequest(0x8000, 20)), "74 20 04 02");
    EXPECT_EQ(ask("36 01 4B 41 56 52 4F 4D 43"), "76 01");
    EXPECT_EQ(ask("36 02 55 09 00 00 00 00 00 00 00 01 02"), "76 02");
    EXPECT_EQ(ask("37"), "7F 37 24") << "two bytes are missing";
    EXPECT_EQ(ask("36 03 03 04"), "76 03");
    EXPECT_EQ(ask("37"), "77");
    EXPECT_EQ(ask(checkRequest(0x8000, kApplication)), "71 01 02 02 00");
}

TEST_F(Mcu, a_repeated_block_is_answered_and_not_written_again) {
    downloading();
    EXPECT_EQ(ask("36 01 4B 41"), "76 01");
    EXPECT_EQ(ask("36 01 4B 41"), "76 01");
    EXPECT_EQ(blocks, 2) << "of the driver, and this one";
    EXPECT_EQ(ask("36 02 56 52 4F 4D 43 55 09 00 00 00 00 00 00 00 01 02 03 04"), "76 02");
    EXPECT_EQ(ask("36 02 56 52 4F 4D 43 55 09 00 00 00 00 00 00 00 01 02 03 04"), "76 02");
    EXPECT_EQ(ask("36 03 00"), "7F 36 24") << "all of it has arrived";
    EXPECT_EQ(ask("37"), "77");
    EXPECT_EQ(ask(checkRequest(0x8000, kApplication)), "71 01 02 02 00");
}

TEST_F(Mcu, a_block_that_was_left_out_is_noticed_and_can_follow) {
    downloading();
    EXPECT_EQ(ask("36 01 4B"), "76 01");
    EXPECT_EQ(ask("36 03 56"), "7F 36 73");
    EXPECT_EQ(ask("36 02 41"), "76 02");
}

TEST_F(Mcu, the_counter_wraps_from_255_to_0) {
    programming();
    ASSERT_EQ(ask(downloadRequest(0x20000000, 300)), "74 20 04 02");
    for (int count = 1; count <= 300; ++count) {
        const auto counter = static_cast<std::uint8_t>(count);
        ASSERT_EQ(ask("36 " + hexOf({counter}) + " 5A"), "76 " + hexOf({counter}));
    }
    EXPECT_EQ(ask("37"), "77");
}

TEST_F(Mcu, the_counter_begins_anew_with_each_download) {
    erased();
    download(0x8000, "01");
    download(0x8001, "02");
}

TEST_F(Mcu, what_is_not_erased_is_not_programmed) {
    downloaded();
    ASSERT_EQ(ask(downloadRequest(0x8013, 2)), "74 20 04 02");
    EXPECT_EQ(ask("36 01 77 78"), "7F 36 72");
    EXPECT_EQ(flash->bytes()[0x8013], 0x04);
    EXPECT_EQ(flash->bytes()[0x8014], 0xFF);
}

// --- checks, erasing, record ---------------------------------------------------------------------

TEST_F(Mcu, every_section_of_the_driver_has_to_be_checked) {
    driverGood();
    download(0x20001000, "B0 B1");
    EXPECT_EQ(ask(kEraseAll), "7F 31 24");
    EXPECT_EQ(ask(checkRequest(0x20001000, "B0 B1")), "71 01 02 02 00");
    EXPECT_EQ(ask(kEraseAll), "71 01 FF 00 00");
}

TEST_F(Mcu, a_driver_found_bad_is_bad) {
    driverGood();
    EXPECT_EQ(ask(checkRequest(0x20000000, "A1")), "71 01 02 02 01");
    EXPECT_EQ(ask(kEraseAll), "7F 31 24");
}

TEST_F(Mcu, a_driver_that_is_loaded_over_has_to_be_checked_again) {
    driverGood();
    download(0x20000004, "B0");
    EXPECT_EQ(ask(checkRequest(0x20000004, "B0")), "71 01 02 02 00");
    EXPECT_EQ(ask(kEraseAll), "7F 31 24");
    EXPECT_EQ(ask(checkRequest(0x20000000, "A0 A1 A2 A3 B0 A5 A6 A7")), "71 01 02 02 00");
    EXPECT_EQ(ask(kEraseAll), "71 01 FF 00 00");
}

TEST_F(Mcu, a_part_of_the_driver_is_not_the_driver) {
    driverLoaded();
    EXPECT_EQ(ask(checkRequest(0x20000000, "A0 A1 A2 A3")), "71 01 02 02 00");
    EXPECT_EQ(ask(kEraseAll), "7F 31 24");
}

TEST_F(Mcu, erasing_one_sector_takes_the_record_and_leaves_other_sectors) {
    driverGood();
    EXPECT_EQ(ask("31 01 FF 00 00 00 90 00 00 00 10 00"), "71 01 FF 00 00");
    EXPECT_EQ(flash->bytes()[0x7000], 0xFF);
    EXPECT_EQ(flash->bytes()[0x8000], 'K');
    restart();
    EXPECT_EQ(ask(kVersion), "7F 22 22");
}

TEST_F(Mcu, a_programmed_application_runs_after_a_reset) {
    checked();
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 00");
    EXPECT_EQ(hexOf(Bytes(flash->bytes().begin() + 0x7000, flash->bytes().begin() + 0x700C)),
              "4B 41 56 52 4F 41 50 50 14 00 00 00");
    EXPECT_EQ(ask(kVersion), "7F 22 22");
    restart();
    EXPECT_EQ(ask(kVersion), "62 F1 89 00 00 00 09");
}

TEST_F(Mcu, an_application_that_was_not_made_to_run_does_not_run) {
    checked();
    restart();
    EXPECT_EQ(ask(kVersion), "7F 22 22");
}

TEST_F(Mcu, making_run_can_be_asked_again) {
    checked();
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 00");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 00");
}

TEST_F(Mcu, an_application_found_bad_is_not_made_to_run) {
    downloaded();
    EXPECT_EQ(ask(checkRequest(0x8000, "00 01")), "71 01 02 02 01");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 01");
    EXPECT_EQ(flash->bytes()[0x7000], 0xFF);
}

TEST_F(Mcu, a_check_from_elsewhere_is_no_check_of_the_application) {
    downloaded();
    EXPECT_EQ(ask(checkRequest(0x8001, std::string(kApplication).substr(3))), "71 01 02 02 00");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 01");
}

TEST_F(Mcu, a_check_of_half_a_header_is_no_check_of_the_application) {
    downloaded();
    EXPECT_EQ(ask(checkRequest(0x8000, std::string(kApplication).substr(0, 8 * 3 - 1))), "71 01 02 02 00");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 01");
}

TEST_F(Mcu, without_a_valid_header_nothing_is_made_to_run) {
    erased();
    download(0x8000, "4B 41 56 52 4F 4D 43 55 09 00 00 00 01 00 00 00");
    EXPECT_EQ(ask(checkRequest(0x8000, "4B 41 56 52 4F 4D 43 55 09 00 00 00 01 00 00 00")), "71 01 02 02 00");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 01");
}

TEST_F(Mcu, what_comes_after_the_check_makes_it_worthless) {
    checked();
    download(0x9000, "01");
    EXPECT_EQ(ask(kMakeRun), "7F 31 24");
    EXPECT_EQ(ask(checkRequest(0x8000, kApplication)), "71 01 02 02 00");
    EXPECT_EQ(ask(kEraseAll), "71 01 FF 00 00");
    EXPECT_EQ(ask(kMakeRun), "7F 31 24");
}

TEST_F(Mcu, a_record_over_another_one_is_a_programming_failure) {
    programming();
    EXPECT_EQ(ask(checkRequest(
                  0x8000, hexOf(Bytes(flash->bytes().begin() + 0x8000, flash->bytes().begin() + 0x8020)))),
              "71 01 02 02 00");
    EXPECT_EQ(ask(kMakeRun), "7F 31 72") << "of an application with another length";
}

TEST_F(Mcu, the_main_processor_is_reset_on_demand) {
    EXPECT_EQ(ask("31 01 02 10"), "71 01 02 10");
    EXPECT_EQ(resetsOfMainProcessor, 1);
    EXPECT_EQ(ask("31 01 02 10 00"), "7F 31 13");
    EXPECT_EQ(resetsOfMainProcessor, 1);
}

// --- faults while a block is written -------------------------------------------------------------

TEST_F(Mcu, a_corrupted_block_is_found_by_the_check) {
    faultyBlock = 2;
    fault = BlockFault::kCorrupt;
    downloaded();
    EXPECT_EQ(ask(checkRequest(0x8000, kApplication)), "71 01 02 02 01");
    EXPECT_EQ(ask(kMakeRun), "71 01 FF 01 01");
}

TEST_F(Mcu, a_corrupted_driver_is_found_by_the_check) {
    faultyBlock = 1;
    fault = BlockFault::kCorrupt;
    driverLoaded();
    EXPECT_EQ(ask(checkRequest(0x20000000, kDriver)), "71 01 02 02 01");
}

TEST_F(Mcu, a_loss_of_power_leaves_half_a_block) {
    faultyBlock = 2;
    fault = BlockFault::kPowerLoss;
    downloading();
    ask(std::string("36 01 ") + kApplication);
    EXPECT_TRUE(mcu->powerLost());
    EXPECT_FALSE(mcu->hears(now + std::chrono::hours(1)));
    EXPECT_EQ(flash->bytes()[0x8009], 0x00);
    EXPECT_EQ(flash->bytes()[0x800A], 0xFF);
    EXPECT_EQ(kavro_test::slurp(path).substr(0x8000, 11), std::string("KAVROMCU\x09\x00\xFF", 11));
}

}  // namespace
