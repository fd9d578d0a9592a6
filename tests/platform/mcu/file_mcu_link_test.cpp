#include "platform/mcu/file_mcu_link.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/mcu/mcu_image.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"

namespace {

using testsupport::applicationOf;
using testsupport::Bytes;

// A keepGoing that ends the work at the given question, counted from 1.
class StopAt {
  public:
    explicit StopAt(unsigned question) : last(question) {}
    bool operator()() { return ++asked < last; }

  private:
    unsigned last;
    unsigned asked = 0;
};

const kavro::KeepGoing kAlways = [] { return true; };

class FileMcu : public testing::Test {
  protected:
    void SetUp() override { testsupport::writeFile(flash, std::string(kavro::kMcuFlashBytes, '\xFF')); }

    bool program(std::uint32_t version, const kavro::KeepGoing& keepGoing = kAlways) {
        return link.program({testsupport::flashDriver(), applicationOf(version)}, keepGoing, error);
    }

    void expectRefused(const kavro::McuFirmware& firmware, const std::string& reason) {
        const std::string before = testsupport::readFile(flash);
        EXPECT_FALSE(link.program(firmware, kAlways, error));
        EXPECT_EQ(error, reason);
        EXPECT_TRUE(testsupport::readFile(flash) == before) << "the flash was touched";
    }

    testsupport::TemporaryDirectory directory;
    const std::string flash = directory.file("flash.bin");
    kavro::FileMcuLink link{flash};
    std::string error;
};

TEST_F(FileMcu, erased_flash_has_no_version) {
    EXPECT_EQ(link.version(error), std::nullopt);
    EXPECT_EQ(error, flash + ": holds no complete application");
    EXPECT_TRUE(link.probe(error));
}

TEST_F(FileMcu, programmed_application_is_reported_and_verified) {
    ASSERT_TRUE(program(8)) << error;
    EXPECT_EQ(link.version(error), 8);
    EXPECT_TRUE(link.verify(applicationOf(8), error)) << error;
    EXPECT_FALSE(link.verify(applicationOf(9), error));
    EXPECT_EQ(error, flash + ": does not hold what was written");
}

TEST_F(FileMcu, flash_holds_boot_loader_application_and_erased_rest) {
    std::string before(kavro::kMcuFlashBytes, 'x');
    testsupport::writeFile(flash, before);
    const auto application = applicationOf(3, 5000);
    ASSERT_TRUE(program(1)) << error;
    ASSERT_TRUE(link.program({testsupport::flashDriver(), application}, kAlways, error)) << error;
    std::string expected = std::string(kavro::kMcuApplicationStart, 'x') +
                           std::string(application[0].bytes.begin(), application[0].bytes.end());
    expected.resize(kavro::kMcuFlashBytes, '\xFF');
    EXPECT_TRUE(testsupport::readFile(flash) == expected);
}

TEST_F(FileMcu, single_damaged_byte_is_found_by_verify) {
    ASSERT_TRUE(program(8)) << error;
    for (const std::size_t offset :
         {std::size_t{kavro::kMcuApplicationStart} + 500, std::size_t{kavro::kMcuFlashBytes} - 1}) {
        const std::string good = testsupport::readFile(flash);
        std::string bad = good;
        bad[offset] = static_cast<char>(bad[offset] ^ 1);
        testsupport::writeFile(flash, bad);
        EXPECT_FALSE(link.verify(applicationOf(8), error)) << offset;
        testsupport::writeFile(flash, good);
    }
}

TEST_F(FileMcu, programming_given_up_before_the_first_write_changes_nothing) {
    ASSERT_TRUE(program(5)) << error;
    const std::string before = testsupport::readFile(flash);
    EXPECT_FALSE(program(6, StopAt(1)));
    EXPECT_EQ(error, flash + ": programming was given up");
    EXPECT_TRUE(testsupport::readFile(flash) == before);
}

TEST_F(FileMcu, programming_interrupted_anywhere_leaves_no_version_and_the_next_one_recovers) {
    unsigned question = 2;
    for (;; ++question) {
        SCOPED_TRACE(question);
        ASSERT_TRUE(program(5)) << error;
        if (program(6, StopAt(question))) {
            break;
        }
        ASSERT_EQ(error, flash + ": programming was given up");
        ASSERT_EQ(link.version(error), std::nullopt);
    }
    EXPECT_EQ(link.version(error), 6);
    // Once before the header goes, per block erased and written, once before the new magic.
    EXPECT_EQ(question, 2 * (kavro::kMcuApplicationBytes / 4096) + 2 + 1);
}

TEST_F(FileMcu, process_killed_while_programming_leaves_no_version) {
    ASSERT_TRUE(program(5)) << error;
    for (const unsigned block : {2U, 100U, 200U, 242U}) {
        const pid_t child = fork();
        if (child == 0) {
            unsigned asked = 0;
            const bool done = program(6, [&asked, block] {
                if (++asked == block) {
                    _exit(0);
                }
                return true;
            });
            _exit(done ? 1 : 2);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        EXPECT_EQ(link.version(error), std::nullopt) << block;
    }
    ASSERT_TRUE(program(7)) << error;
    EXPECT_EQ(link.version(error), 7);
}

TEST_F(FileMcu, missing_or_misplaced_firmware_is_refused_untouched) {
    ASSERT_TRUE(program(5)) << error;
    expectRefused({{}, applicationOf(6)}, "flash driver: holds no data");
    expectRefused({testsupport::flashDriver(), {}}, "application: holds no data");
    expectRefused({applicationOf(6), applicationOf(6)},
                  "flash driver: data at 0x00008000..0x0000A71F is outside of 0x20000000..0x2000FFFF");
    expectRefused({testsupport::flashDriver(), testsupport::flashDriver()},
                  "application: data at 0x20000000..0x200001FF is outside of 0x00008000..0x0007FFFF");
    EXPECT_EQ(link.version(error), 5);
}

TEST_F(FileMcu, missing_flash_is_not_reachable) {
    kavro::FileMcuLink absent(directory.file("none.bin"));
    const std::string reason = directory.file("none.bin") + ": cannot be opened: No such file or directory";
    EXPECT_FALSE(absent.probe(error));
    EXPECT_EQ(error, reason);
    EXPECT_FALSE(absent.setLink(true, error));
    EXPECT_TRUE(absent.setLink(false, error));
    EXPECT_EQ(absent.version(error), std::nullopt);
    EXPECT_FALSE(absent.program({testsupport::flashDriver(), applicationOf(1)}, kAlways, error));
    EXPECT_FALSE(absent.verify(applicationOf(1), error));
    EXPECT_FALSE(absent.requestReset(error));
    EXPECT_FALSE(testsupport::exists(directory.file("none.bin")));
}

TEST_F(FileMcu, flash_of_another_size_is_not_reachable) {
    testsupport::writeFile(flash, std::string(1000, '\xFF'));
    EXPECT_FALSE(link.probe(error));
    EXPECT_EQ(error, flash + ": is no flash memory of 524288 bytes");
    EXPECT_FALSE(program(1));
    EXPECT_EQ(testsupport::sizeOf(flash), 1000);
}

TEST_F(FileMcu, link_switches_on_and_off) {
    EXPECT_TRUE(link.setLink(true, error)) << error;
    EXPECT_TRUE(link.setLink(false, error)) << error;
}

TEST_F(FileMcu, reset_request_is_seen_beside_the_flash) {
    EXPECT_FALSE(testsupport::exists(directory.file("reset_request")));
    ASSERT_TRUE(link.requestReset(error)) << error;
    EXPECT_EQ(testsupport::readFile(directory.file("reset_request")), "reset\n");
    EXPECT_TRUE(link.requestReset(error)) << error;
}

TEST_F(FileMcu, link_is_the_one_that_the_configuration_names) {
    kavro::PlatformConfig config;
    EXPECT_EQ(kavro::openMcuLink(config, error), nullptr);
    EXPECT_EQ(error, "/etc/kavro/platform.json: \"mcu\" names no \"flash\"");
    config.fault = "is no JSON object";
    EXPECT_EQ(kavro::openMcuLink(config, error), nullptr);
    EXPECT_EQ(error, "/etc/kavro/platform.json: is no JSON object");
    config.fault.clear();
    config.mcuFlashFile = flash;
    const auto opened = kavro::openMcuLink(config, error);
    ASSERT_NE(opened, nullptr);
    EXPECT_TRUE(opened->probe(error)) << error;
}

}  // namespace
