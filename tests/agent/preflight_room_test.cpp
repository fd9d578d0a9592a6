// Room on a device with 4 MiB for packages, and 1 MiB to work in.
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <fstream>
#include <string>

#include "tests/agent/preflight_support.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/program.h"

namespace {

using namespace agent_test;
using kavro::agent::Preflight;
using testsupport::writeFile;

constexpr unsigned long kPiece = 128 << 10;
constexpr unsigned long kKernelBytes = 300 << 10;  // most of the payload

class AgentPreflightRoom : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_TRUE(mcu.start());
        package.writeTo(kPackage);
    }

    // Of a copy: the payload and the trailer in whole pieces.
    unsigned long copyBytes() const {
        return (package.payloadBytes() + kPiece - 1) / kPiece * kPiece + kPiece;
    }

    testsupport::McuEmulator mcu;
    testsupport::TestPackage package =
        release().setComponent("Image", testsupport::kernelImage(kKernelBytes));
};

unsigned long freeIn(const char* directory) {
    struct statvfs fileSystem = {};
    EXPECT_EQ(statvfs(directory, &fileSystem), 0);
    return fileSystem.f_bavail * fileSystem.f_frsize;
}

// Leaves so much, or up to a block less.
void leave(unsigned long bytes, const char* directory) {
    const std::string filler = std::string(directory) + "/filler";
    std::filesystem::remove(filler);
    ASSERT_GT(freeIn(directory), bytes);
    writeFile(filler, std::string(freeIn(directory) - bytes, 'f'));
    ASSERT_LE(freeIn(directory), bytes);
}

TEST_F(AgentPreflightRoom, is_enough_for_two_copies_of_what_is_in_the_package) {
    leave(3 * copyBytes(), "/firmware");
    EXPECT_EQ(obstacles(), Names{});
}

TEST_F(AgentPreflightRoom, that_is_short_for_the_second_copy_is_told_with_what_is_needed) {
    leave(copyBytes() + kPiece / 2, "/firmware");
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"no_room"});
    EXPECT_EQ(preflight.obstacles[0].text.rfind("the file system at /firmware has room for ", 0), 0U)
        << preflight.obstacles[0].text;
    EXPECT_FALSE(preflight.obstacles[0].forceable);
}

TEST_F(AgentPreflightRoom, of_the_old_rollback_package_is_free_for_the_second_copy) {
    writeFile("/firmware/rollback.pkg", std::string(2 * copyBytes(), 'r'));
    leave(copyBytes() + kPiece / 2, "/firmware");
    EXPECT_EQ(obstacles(), Names{});
}

TEST_F(AgentPreflightRoom, of_the_old_rollback_package_is_not_free_for_the_first_copy) {
    writeFile("/firmware/rollback.pkg", std::string(2 * copyBytes(), 'r'));
    leave(copyBytes() - kPiece, "/firmware");
    EXPECT_EQ(obstacles(), Names{"no_room"});
}

TEST_F(AgentPreflightRoom, of_a_rollback_package_that_has_another_name_is_not_freed) {
    writeFile("/firmware/rollback.pkg", std::string(2 * copyBytes(), 'r'));
    std::filesystem::create_hard_link("/firmware/rollback.pkg", "/firmware/kept.pkg");
    leave(copyBytes() + kPiece / 2, "/firmware");
    EXPECT_EQ(obstacles(), Names{"no_room"});
}

TEST_F(AgentPreflightRoom, of_what_a_former_run_has_left_is_free) {
    writeFile("/firmware/upgrade.pkg", std::string(copyBytes(), 'u'));
    writeFile("/firmware/upgrade.pkg.part", std::string(copyBytes(), 'u'));
    leave(copyBytes(), "/firmware");
    EXPECT_EQ(obstacles(), Names{});
}

// Its copies get the holes that it lacks.
TEST_F(AgentPreflightRoom, is_that_of_the_contents_of_a_package_without_holes) {
    const auto filled = testsupport::runProgram({"cp", "--sparse=never", kPackage, "/tmp/filled.pkg"});
    ASSERT_EQ(filled.exitCode, 0) << filled.err;
    leave(3 * copyBytes(), "/firmware");
    EXPECT_EQ(obstacles({}, "/tmp/filled.pkg"), Names{});
}

// The copy over an older one is refused by what the source has stored.
TEST_F(AgentPreflightRoom, is_the_whole_of_a_package_without_holes_beside_what_a_former_run_has_left) {
    const auto filled = testsupport::runProgram({"cp", "--sparse=never", kPackage, "/tmp/filled.pkg"});
    ASSERT_EQ(filled.exitCode, 0) << filled.err;
    writeFile("/firmware/upgrade.pkg", "left over");
    EXPECT_EQ(obstacles({}, "/tmp/filled.pkg"), Names{"no_room"});
    EXPECT_EQ(obstacles(), Names{});
}

TEST_F(AgentPreflightRoom, for_the_components_is_what_there_is_when_the_work_area_is_emptied) {
    leave(8192, "/raw");
    EXPECT_EQ(obstacles(), Names{});
    std::filesystem::rename("/raw/filler", "/raw/.hidden");  // which the run leaves
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"no_room"});
    EXPECT_EQ(preflight.obstacles[0].text.rfind("the file system at /raw has room for ", 0), 0U)
        << preflight.obstacles[0].text;
}

TEST_F(AgentPreflightRoom, is_not_judged_while_another_process_takes_some_of_it) {
    leave(8192, "/firmware");
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    EXPECT_EQ(obstacles(), Names{"busy"});
    UPGRADE_unlock_device();
}

}  // namespace
