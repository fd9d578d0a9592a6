// An activation that was cut off after its switch, at each of the steps that follow.
#include "agent/start.h"

#include <gtest/gtest.h>

#include "agent/activation.h"
#include "agent/history.h"
#include "base/failure.h"
#include "tests/agent/slot_support.h"
#include "tests/common/libc_spies.h"
#include "tests/support/program.h"
#include "tests/tools/device_support.h"

namespace {

using namespace tool_test;
using namespace agent_test;
using testsupport::exists;
using testsupport::readFile;
using testsupport::TestPackage;
using testsupport::writeFile;

const std::string kCurrent = "/firmware/current.pkg";
const std::string kRollback = "/firmware/rollback.pkg";
const std::string kAside = "/firmware/temp";
const std::string kVersions = "/config/upgrade_config.json";
const std::string kWrittenSlot = "/config/written_slot.json";

constexpr const char* kBefore = "001104007002\n";
constexpr const char* kAfter = "001105008003\n";

class TornActivation : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        before.setComponent("Image", "kernel before").setVersions(1, 104, 7, 2);
        after.setComponent("Image", "kernel after").setVersions(1, 105, 8, 3);
        writeFile(kMarker, "");
        writeFile(kVersions, "{}");
    }
    void TearDown() override {
        spy::onFlush({});
        DeviceTest::TearDown();
    }

    // What was done, in one text.
    static std::string done() {
        std::string text;
        for (const std::string& sentence : kavro::valueOf(kavro::agent::completeStart())) {
            text += sentence;
        }
        return text;
    }

    // A power cut keeps what was flushed and may lose everything else: the marker must not be the first to go.
    static bool flushesExchangeBeforeMarkerGoes() {
        bool flushed = false;
        spy::onFlush([&flushed](const std::string& path) {
            const bool exchanged =
                versionsOf(kCurrent) == kAfter && versionsOf(kRollback) == kBefore && !exists(kAside);
            flushed = flushed || (path == "/firmware" && exchanged && exists(kMarker));
        });
        done();
        return flushed;
    }

    static void expectExchanged() {
        EXPECT_EQ(versionsOf(kCurrent), kAfter);
        EXPECT_EQ(versionsOf(kRollback), kBefore);
        EXPECT_FALSE(exists(kAside));
        EXPECT_FALSE(exists(kMarker));
        EXPECT_FALSE(exists(kVersions));
    }

    TestPackage before;
    TestPackage after;
};

TEST_F(TornActivation, cut_off_after_the_switch_is_completed) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    EXPECT_NE(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, cut_off_after_the_first_rename_is_completed) {
    startFrom("b", after);
    before.writeTo(kAside);
    after.writeTo(kRollback);
    EXPECT_NE(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, cut_off_after_the_second_rename_is_completed) {
    startFrom("b", after);
    before.writeTo(kAside);
    after.writeTo(kCurrent);
    EXPECT_NE(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, cut_off_before_the_marker_went_keeps_the_exchanged_packages) {
    startFrom("b", after);
    after.writeTo(kCurrent);
    before.writeTo(kRollback);
    EXPECT_NE(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, whose_marker_went_before_its_renames_is_completed) {
    startFrom("b", after);
    std::filesystem::remove(kMarker);
    before.writeTo(kAside);
    after.writeTo(kCurrent);
    EXPECT_NE(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, has_its_exchange_on_storage_before_the_marker_goes) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    EXPECT_TRUE(flushesExchangeBeforeMarkerGoes());
    EXPECT_FALSE(exists(kMarker));
}

TEST_F(TornActivation, whose_exchange_was_begun_is_on_storage_before_the_marker_goes) {
    startFrom("b", after);
    before.writeTo(kAside);
    after.writeTo(kCurrent);
    EXPECT_TRUE(flushesExchangeBeforeMarkerGoes());
    EXPECT_FALSE(exists(kMarker));
}

// Whoever made the exchange may have been killed before it was flushed.
TEST_F(TornActivation, whose_packages_are_in_their_places_is_on_storage_before_the_marker_goes) {
    startFrom("b", after);
    after.writeTo(kCurrent);
    before.writeTo(kRollback);
    EXPECT_TRUE(flushesExchangeBeforeMarkerGoes());
    EXPECT_FALSE(exists(kMarker));
}

// It repeats the environment while its slot starts, and would count again after a fallback.
TEST_F(TornActivation, leaves_no_record_of_the_written_slot) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    recordWrittenSlot("b", after);
    EXPECT_NE(done(), "");
    EXPECT_FALSE(exists(kWrittenSlot));
    expectExchanged();
}

TEST_F(TornActivation, that_is_completed_is_noted) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    (void)done();
    const auto history = kavro::agent::readHistory().value();
    ASSERT_EQ(history.size(), 1U);
    EXPECT_EQ(history[0].event, "activate");
    EXPECT_EQ(history[0].release, "V01.105.008.003");
}

TEST_F(TornActivation, is_completed_once) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    EXPECT_NE(done(), "");
    EXPECT_EQ(done(), "");
    expectExchanged();
}

TEST_F(TornActivation, of_the_first_package_of_a_device_is_completed) {
    startFrom("b", after);
    after.writeTo(kRollback);
    EXPECT_NE(done(), "");
    EXPECT_EQ(versionsOf(kCurrent), kAfter);
    EXPECT_FALSE(exists(kRollback));
    EXPECT_FALSE(exists(kMarker));
}

TEST_F(TornActivation, whose_slot_was_given_up_by_the_boot_loader_keeps_the_packages_as_they_are) {
    startFrom("b", after);
    startFrom("a", before);  // the boot loader has gone back
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    EXPECT_NE(done(), "");
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_EQ(versionsOf(kRollback), kAfter);
    EXPECT_FALSE(exists(kMarker));
}

TEST_F(TornActivation, of_a_rollback_that_only_switches_is_completed) {
    startFrom("b", after);
    startFrom("a", before);
    after.writeTo(kCurrent);
    before.writeTo(kRollback);
    EXPECT_NE(done(), "");
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_EQ(versionsOf(kRollback), kAfter);
    EXPECT_FALSE(exists(kMarker));
}

TEST_F(TornActivation, a_package_that_awaits_its_activation_is_left_alone) {
    startFrom("a", before);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    recordWrittenSlot("b", after);
    EXPECT_EQ(done(), "");
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_TRUE(exists(kMarker));
    EXPECT_TRUE(exists(kVersions));
}

TEST_F(TornActivation, a_device_without_one_is_left_alone) {
    std::filesystem::remove(kMarker);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    EXPECT_EQ(done(), "");
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_TRUE(exists(kVersions));
}

// Slot b was activated, and the boot loader has gone back to slot a after its trial.
class Fallback : public TornActivation {
  protected:
    void SetUp() override {
        TornActivation::SetUp();
        std::filesystem::remove(kMarker);
        startFrom("b", after);
        startFrom("a", before);
        after.writeTo(kCurrent);
        before.writeTo(kRollback);
    }
};

TEST_F(Fallback, is_told_and_noted_once_and_the_packages_follow_what_runs) {
    EXPECT_EQ(
        done(),
        "the boot loader has gone back from V01.105.008.003, which failed its trial, to V01.104.007.002");
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_EQ(versionsOf(kRollback), kAfter);
    EXPECT_FALSE(exists(kAside));
    EXPECT_EQ(done(), "");
    EXPECT_TRUE(kavro::agent::hasFailedTrial(kavro::agent::readHistory().value(), "V01.105.008.003"));
}

TEST_F(Fallback, whose_packages_were_cut_off_between_their_renames_is_completed) {
    for (const auto& [from, to] : {std::pair(kCurrent, kAside), std::pair(kRollback, kCurrent)}) {
        std::filesystem::rename(from, to);
        EXPECT_NE(done(), "") << "cut off after " << from;
        EXPECT_EQ(versionsOf(kCurrent), kBefore);
        EXPECT_EQ(versionsOf(kRollback), kAfter);
        EXPECT_FALSE(exists(kAside));
        std::filesystem::rename(kRollback, kAside);
        std::filesystem::rename(kCurrent, kRollback);
    }
}

TEST_F(Fallback, is_found_beside_a_record_that_its_activation_has_left) {
    recordWrittenSlot("b", after);
    EXPECT_NE(done().find("gone back from V01.105.008.003"), std::string::npos);
    EXPECT_FALSE(exists(kWrittenSlot));
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
}

// There is no package of what runs. That its slot was left is told by the history, and by what the slot holds.
class FallbackFromFirstPackage : public Fallback {
  protected:
    void SetUp() override {
        Fallback::SetUp();
        std::filesystem::remove(kRollback);
        for (const auto& [component, part] : kSlotParts) {
            writeFile("/dev/disk/by-partlabel/" + part + "_b", after.files().at(component));
        }
        note("activate", "V01.105.008.003");
    }

    static void note(const char* event, const char* release) {
        kavro::agent::HistoryEntry entry;
        entry.event = event;
        entry.outcome = "ok";
        entry.release = release;
        ASSERT_TRUE(kavro::agent::appendHistory(entry).ok());
    }

    static void expectNoFallback() {
        EXPECT_EQ(done(), "");
        EXPECT_EQ(versionsOf(kCurrent), kAfter);
        EXPECT_FALSE(kavro::agent::hasFailedTrial(kavro::agent::readHistory().value(), "V01.105.008.003"));
    }
};

TEST_F(FallbackFromFirstPackage, is_found_after_a_rollback_too) {
    note("rollback", "V01.105.008.003");
    EXPECT_NE(done().find("gone back from V01.105.008.003"), std::string::npos);
}

TEST_F(FallbackFromFirstPackage, leaves_no_package_of_what_runs) {
    EXPECT_NE(done().find("gone back from V01.105.008.003"), std::string::npos);
    EXPECT_EQ(versionsOf(kCurrent), "none");
    EXPECT_EQ(versionsOf(kRollback), kAfter);
    EXPECT_EQ(done(), "");
}

// The run took the activation back, and removed the kept package.
TEST_F(FallbackFromFirstPackage, is_not_what_a_run_over_an_activated_slot_has_left) {
    writeFile(kLastRun, "upgrade_failure");
    expectNoFallback();
}

TEST_F(FallbackFromFirstPackage, is_not_what_a_run_has_left_whose_failure_was_read_meanwhile) {
    writeFile("/dev/disk/by-partlabel/kernel_b", "half a kernel");
    expectNoFallback();
}

TEST_F(FallbackFromFirstPackage, is_not_what_a_discard_over_an_activated_slot_has_left) {
    note("discard", "V01.106.009.003");
    expectNoFallback();
}

TEST_F(Fallback, whose_packages_cannot_be_moved_keeps_no_device_from_starting) {
    std::filesystem::create_directories(kAside + "/in the way");
    const std::string told = done();
    EXPECT_NE(told.find("gone back from V01.105.008.003"), std::string::npos) << told;
    EXPECT_NE(told.find("'/firmware/current.pkg' cannot be renamed"), std::string::npos) << told;
}

TEST_F(Fallback, leaves_a_kept_package_that_nobody_goes_back_to) {
    (void)done();
    const auto way = kavro::agent::findWayBack(std::nullopt);
    ASSERT_FALSE(way.ok());
    EXPECT_EQ(way.error().code, kavro::ErrorCode::kRefused);
    EXPECT_EQ(
        way.error().text,
        "the rollback package '/firmware/rollback.pkg' holds V01.105.008.003, which failed its trial on this "
        "device");
}

TEST_F(Fallback, from_a_release_that_an_application_has_confirmed_since_is_none_any_more) {
    (void)done();
    startFrom("b", after);
    writeFile("/run/kavro/running_slot", "b\n");
    writeFile("/etc/kavro/version.json",
              R"({"bld_version": 3, "hw_version": 1, "mcu_version": 8, "mpu_version": 105})");
    EXPECT_TRUE(kavro::agent::hasFailedTrial(kavro::agent::readHistory().value(), "V01.105.008.003"));
    (void)done();
    EXPECT_FALSE(kavro::agent::hasFailedTrial(kavro::agent::readHistory().value(), "V01.105.008.003"));
}

TEST_F(Fallback, that_cannot_be_noted_keeps_no_device_from_starting) {
    std::filesystem::create_directory(kavro::agent::kHistoryFile);
    EXPECT_NE(done().find("which failed its trial"), std::string::npos);
}

TEST_F(TornActivation, of_which_nothing_is_known_keeps_no_device_from_starting) {
    std::filesystem::remove(kMarker);
    after.writeTo(kCurrent);
    before.writeTo(kRollback);
    std::filesystem::remove("/etc/kavro/fw_env.config");
    EXPECT_EQ(done(), "");
}

TEST_F(TornActivation, cut_off_is_completed_by_the_next_activation_and_not_switched_back) {
    startFrom("b", after);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    const kavro::Result<std::string> again = kavro::agent::activate();
    ASSERT_TRUE(again.ok()) << again.error().text;
    EXPECT_EQ(again.value(), "an activation was cut off; its packages were given their places");
    expectExchanged();
    EXPECT_TRUE(
        contains(runProgram({"fw_printenv", "-c", "/etc/kavro/fw_env.config", "boot_slot"}).out, "=b"));
    EXPECT_FALSE(kavro::agent::activate().ok()) << "nothing awaits its activation any more";
}

// As a rollback that only switches leaves it, cut off before its switch.
TEST_F(TornActivation, that_has_switched_nothing_is_not_told_as_an_activation) {
    startFrom("a", before);
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    const kavro::Result<std::string> again = kavro::agent::activate();
    ASSERT_FALSE(again.ok());
    EXPECT_NE(again.error().text.find("the running software starts next"), std::string::npos)
        << again.error().text;
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
}

TEST_F(TornActivation, that_cannot_be_judged_is_told_and_left_alone) {
    before.writeTo(kCurrent);
    after.writeTo(kRollback);
    std::filesystem::remove("/etc/kavro/fw_env.config");
    EXPECT_THROW(done(), kavro::Failure);
    EXPECT_EQ(versionsOf(kCurrent), kBefore);
    EXPECT_TRUE(exists(kMarker));
}

TEST_F(TornActivation, is_completed_by_init_which_says_so) {
    startFrom("b", after);
    before.writeTo(kAside);
    after.writeTo(kCurrent);
    const ProgramResult result = tool_test::upgradectl({"init"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out,
              "an activation was cut off; its packages were given their places\n"
              "ready, packages go to /firmware\n");
    EXPECT_EQ(versionsOf(kCurrent), kAfter);
    EXPECT_EQ(versionsOf(kRollback), kBefore);
    EXPECT_FALSE(exists(kMarker));
}

}  // namespace
