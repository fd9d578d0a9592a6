// An installed package that is dropped, and cut off at each of the steps.
#include <gtest/gtest.h>

#include <filesystem>

#include "agent/activation.h"
#include "agent/history.h"
#include "agent/start.h"
#include "base/failure.h"
#include "tests/agent/slot_support.h"
#include "tests/support/mcu_emulator.h"
#include "upgrade/upgrade_api.h"

namespace {

using namespace tool_test;
using namespace agent_test;
using testsupport::exists;
using testsupport::McuEmulator;
using testsupport::TestPackage;
using testsupport::writeFile;

constexpr const char* kWrittenSlot = "/config/written_slot.json";
constexpr int kRunning = 7;
constexpr int kInstalled = 8;

// Slot a runs; another release was installed, its firmware in the microcontroller.
class Discard : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        running.setComponent("Image", "kernel that runs").setVersions(1, 104, kRunning, 2);
        installed.setComponent("Image", "kernel to come").setVersions(1, 105, kInstalled, 3);
        startFrom("a", running);
        running.writeTo(UpgradeProc::currentPkg);
        installed.writeTo(UpgradeProc::rollbackPkg);
        recordWrittenSlot("b", installed);
        writeFile(kMarker, "");
        ASSERT_TRUE(mcu.format(kInstalled));
        ASSERT_TRUE(mcu.start());
    }

    void expectDiscarded() {
        EXPECT_FALSE(exists(UpgradeProc::rollbackPkg));
        EXPECT_FALSE(exists(kWrittenSlot));
        EXPECT_FALSE(exists(kMarker));
        EXPECT_EQ(versionsOf(UpgradeProc::currentPkg), "001104007002\n");
        mcu.stop();
        EXPECT_EQ(mcu.version(), kRunning) << mcu.log();
    }

    McuEmulator mcu;
    TestPackage running;
    TestPackage installed;
};

TEST_F(Discard, drops_the_package_and_brings_the_microcontroller_back) {
    EXPECT_EQ(
        kavro::valueOf(kavro::agent::discard()),
        (std::vector<std::string>{
            "discarded V01.105.008.003",
            "the microcontroller was programmed with version 7 of the running release; it had version 8"}));
    const auto history = kavro::valueOf(kavro::agent::readHistory());
    ASSERT_EQ(history.size(), 2U);
    EXPECT_EQ(history[0].event, "discard");
    EXPECT_EQ(history[0].release, "V01.105.008.003");
    EXPECT_EQ(history[0].before, "V01.104.007.002");
    EXPECT_EQ(history[1].event, "repair");
    expectDiscarded();
}

TEST_F(Discard, cut_off_after_the_package_went_is_completed_by_the_next_start) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    EXPECT_EQ(kavro::valueOf(kavro::agent::completeStart()).size(), 2U);
    expectDiscarded();
}

TEST_F(Discard, cut_off_after_the_package_went_is_completed_by_the_next_discard) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    EXPECT_EQ(kavro::valueOf(kavro::agent::discard()).front(), "discarded the installed package");
    expectDiscarded();
}

TEST_F(Discard, cut_off_after_the_package_went_leaves_nothing_to_activate) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    const auto activated = kavro::agent::activate();
    ASSERT_FALSE(activated.ok());
    EXPECT_EQ(activated.error().text, "the package of what awaits activation is missing");
    EXPECT_EQ(versionsOf(UpgradeProc::currentPkg), "001104007002\n");
}

TEST_F(Discard, cut_off_after_the_record_went_is_completed_by_the_next_start) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    std::filesystem::remove(kWrittenSlot);
    EXPECT_EQ(kavro::valueOf(kavro::agent::completeStart()).size(), 2U);
    expectDiscarded();
}

TEST_F(Discard, cut_off_before_the_microcontroller_is_completed_by_the_next_start) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    std::filesystem::remove(kWrittenSlot);
    std::filesystem::remove(kMarker);
    EXPECT_EQ(kavro::valueOf(kavro::agent::completeStart()).size(), 1U);
    expectDiscarded();
}

TEST_F(Discard, without_an_installed_package_changes_nothing) {
    std::filesystem::remove(kMarker);
    std::filesystem::remove(kWrittenSlot);
    const auto done = kavro::agent::discard();
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().text, "no installed package awaits activation");
    EXPECT_TRUE(exists(UpgradeProc::rollbackPkg));
    EXPECT_TRUE(kavro::valueOf(kavro::agent::readHistory()).empty());
}

TEST_F(Discard, of_a_package_that_starts_next_already_is_refused_and_its_activation_completed) {
    std::filesystem::remove(kWrittenSlot);
    startFrom("b", installed);
    const auto done = kavro::agent::discard();
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().text, "an activation was cut off; its packages were given their places");
    EXPECT_EQ(versionsOf(UpgradeProc::currentPkg), "001105008003\n");
    EXPECT_EQ(versionsOf(UpgradeProc::rollbackPkg), "001104007002\n");
}

TEST_F(Discard, whose_package_cannot_be_removed_says_so_and_can_be_tried_again) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    std::filesystem::create_directories(UpgradeProc::rollbackPkg + "/in the way");
    const auto done = kavro::agent::discard();
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().text, "'/firmware/rollback.pkg' cannot be removed");
    EXPECT_TRUE(exists(kMarker));
    std::filesystem::remove_all(UpgradeProc::rollbackPkg);
    EXPECT_TRUE(kavro::agent::discard().ok());
    expectDiscarded();
}

TEST_F(Discard, of_what_was_installed_leaves_nothing_to_activate_or_to_roll_back_to) {
    std::filesystem::remove(kMarker);
    std::filesystem::remove(kWrittenSlot);
    installed.writeTo("/tmp/to_come.pkg");
    mcu.stop();
    ASSERT_TRUE(mcu.format(kRunning));
    ASSERT_TRUE(mcu.start());
    ASSERT_EQ(upgradectl({"install", "/tmp/to_come.pkg"}).exitCode, 0);
    const ProgramResult result = upgradectl({"discard"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "discarded V01.105.008.003\n")) << result.out;
    EXPECT_EQ(upgradectl({"activate"}).exitCode, 1);
    EXPECT_EQ(upgradectl({"rollback"}).exitCode, 1);
    EXPECT_EQ(upgradectl({"status"}).exitCode, 0);
    expectDiscarded();
}

}  // namespace
