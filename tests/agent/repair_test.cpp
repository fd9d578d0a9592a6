// A microcontroller that has not the firmware of the running release, at a start.
#include <gtest/gtest.h>

#include <string>

#include "agent/history.h"
#include "agent/run.h"
#include "agent/start.h"
#include "base/failure.h"
#include "tests/agent/slot_support.h"
#include "tests/support/mcu_emulator.h"
#include "tests/tools/device_support.h"
#include "upgrade/upgrade_api.h"

namespace {

using namespace tool_test;
using namespace agent_test;
using testsupport::exists;
using testsupport::McuEmulator;
using testsupport::readFile;
using testsupport::TestPackage;
using testsupport::writeFile;

constexpr const char* kConfig = "/etc/kavro/platform.json";
constexpr int kRunning = 7;
constexpr int kFailed = 8;

// Slot a runs a release whose package is kept; the boot loader has gone back to it from another one.
class Repair : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        running.setComponent("Image", "kernel that runs").setVersions(1, 104, kRunning, 2);
        failed.setComponent("Image", "kernel that failed").setVersions(1, 105, kFailed, 2);
        running.writeTo(UpgradeProc::rollbackPkg);
        failed.writeTo(UpgradeProc::currentPkg);
        startFrom("a", running);
        ASSERT_TRUE(mcu.format(kFailed));
        ASSERT_TRUE(mcu.start());
    }

    static void switchRepairOff() {
        const std::string edit = std::string("jq '.mcu.repair = false' ") + kConfig + " >/tmp/edited";
        ASSERT_EQ(runProgram({"sh", "-c", edit + " && cat /tmp/edited >" + kConfig}).exitCode, 0);
    }

    // What was done, besides the fallback, which is told first.
    static std::string done() {
        const auto sentences = kavro::valueOf(kavro::agent::completeStart());
        return sentences.empty() ? "" : sentences.back();
    }

    static std::string outcomeOfRepair() {
        std::string outcome = "none";
        for (const auto& entry : kavro::valueOf(kavro::agent::readHistory())) {
            outcome = entry.event == "repair" ? entry.outcome : outcome;
        }
        return outcome;
    }

    void expectVersion(std::optional<int> version) {
        mcu.stop();
        EXPECT_EQ(mcu.version(), version) << mcu.log();
    }

    McuEmulator mcu;
    TestPackage running;
    TestPackage failed;
};

TEST_F(Repair, programs_the_firmware_of_what_runs_after_a_fallback) {
    EXPECT_EQ(done(),
              "the microcontroller was programmed with version 7 of the running release; it had version 8");
    EXPECT_EQ(outcomeOfRepair(), "ok");
    EXPECT_EQ(testsupport::readVersions(UpgradeProc::currentCfg).mcu, kRunning);
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    EXPECT_FALSE(exists(UpgradeProc::storePath));
    EXPECT_FALSE(exists(kLastRun));
    EXPECT_EQ(done(), "") << "there is nothing more to do";
    EXPECT_FALSE(exists("/firmware/temp"));
    expectVersion(kRunning);
}

TEST_F(Repair, programs_one_whose_programming_was_cut_off) {
    mcu.stop();
    ASSERT_TRUE(mcu.format(McuEmulator::kNoApplication));
    ASSERT_TRUE(mcu.start());
    EXPECT_EQ(
        done(),
        "the microcontroller was programmed with version 7 of the running release; it had no application");
    expectVersion(kRunning);
}

TEST_F(Repair, that_was_cut_off_itself_is_made_by_the_next_start) {
    mcu.stop();
    ASSERT_TRUE(mcu.start({"power-loss=1"}));
    EXPECT_NE(done().find("could not be brought to version 7"), std::string::npos);
    EXPECT_EQ(outcomeOfRepair(), "other");
    mcu.stop();
    ASSERT_TRUE(mcu.start());
    EXPECT_NE(done().find("was programmed with version 7"), std::string::npos);
    expectVersion(kRunning);
}

TEST_F(Repair, leaves_a_microcontroller_alone_that_fits) {
    mcu.stop();
    ASSERT_TRUE(mcu.format(kRunning));
    ASSERT_TRUE(mcu.start());
    (void)done();
    EXPECT_EQ(outcomeOfRepair(), "none");
    EXPECT_EQ(mcu.log().find("RequestDownload"), std::string::npos);
}

TEST_F(Repair, is_not_made_on_a_board_that_does_not_want_it) {
    switchRepairOff();
    (void)done();
    EXPECT_EQ(outcomeOfRepair(), "none");
    expectVersion(kFailed);
}

TEST_F(Repair, is_not_made_while_an_installed_package_awaits_its_activation) {
    writeFile(kMarker, "");
    recordWrittenSlot("b", failed);
    running.writeTo(UpgradeProc::currentPkg);
    failed.writeTo(UpgradeProc::rollbackPkg);
    (void)kavro::agent::completeStart();
    EXPECT_EQ(outcomeOfRepair(), "none");
    expectVersion(kFailed);
}

TEST_F(Repair, without_the_package_of_what_runs_is_left_to_the_state_to_tell) {
    std::filesystem::remove(UpgradeProc::rollbackPkg);
    (void)done();
    EXPECT_EQ(outcomeOfRepair(), "none");
    expectVersion(kFailed);
}

TEST_F(Repair, from_a_package_whose_signature_does_not_verify_is_not_made) {
    running.corruptSignature("mcu_flash_app.s19").writeTo(UpgradeProc::rollbackPkg);
    EXPECT_EQ(
        done(),
        "the microcontroller (version 8) could not be brought to version 7: the signatures of its package do "
        "not verify");
    EXPECT_EQ(outcomeOfRepair(), "other");
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    expectVersion(kFailed);
}

// The run removes the kept package, which is that of what runs until a start has followed the fallback.
TEST_F(Repair, of_the_packages_is_made_by_an_installation_that_no_start_came_before) {
    TestPackage().setComponent("Image", "kernel to come").setVersions(1, 106, 9, 2).writeTo("/tmp/next.pkg");
    const auto record = kavro::agent::install("/tmp/next.pkg");
    ASSERT_TRUE(record.ok()) << record.error().text;
    EXPECT_EQ(versionsOf(UpgradeProc::currentPkg), "001104007002\n");
    EXPECT_EQ(versionsOf(UpgradeProc::rollbackPkg), "001106009002\n");
    EXPECT_TRUE(kavro::agent::hasFailedTrial(kavro::agent::readHistory().value(), "V01.105.008.002"));
}

TEST_F(Repair, of_the_packages_shows_that_the_release_to_be_installed_has_failed) {
    failed.writeTo("/tmp/next.pkg");
    const auto record = kavro::agent::install("/tmp/next.pkg");
    ASSERT_FALSE(record.ok());
    EXPECT_EQ(record.error().code, kavro::ErrorCode::kRefused);
    EXPECT_NE(record.error().text.find("has fallen back from it"), std::string::npos) << record.error().text;
}

// An upgrade of the microcontroller alone leaves the slot as it was.
TEST_F(Repair, leaves_a_firmware_alone_that_a_kept_package_of_the_running_slot_brings) {
    TestPackage(running).setVersions(1, 104, kFailed, 2).writeTo(UpgradeProc::currentPkg);
    (void)done();
    EXPECT_EQ(outcomeOfRepair(), "none");
    expectVersion(kFailed);
}

TEST_F(Repair, of_a_silent_microcontroller_is_not_tried) {
    mcu.stop();
    (void)done();
    EXPECT_EQ(outcomeOfRepair(), "none");
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
}

}  // namespace
