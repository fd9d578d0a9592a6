// The flash driver of the main processor and the boot loader's environment: which slot starts next, on trial or
// not, and what the boot loader is told that the slots hold.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/platform/captured_log.h"
#include "tests/platform/flash/mpu_device.h"
#include "tests/support/small_stack.h"

namespace {

using testsupport::kEnvironmentConfig;
using testsupport::kFirmware;
using testsupport::kPartitions;
using testsupport::kRunningSlot;
using testsupport::kWrittenSlot;
using testsupport::releaseOf;
using testsupport::Snapshot;
using testsupport::Variables;

class MpuActivation : public testsupport::MpuDevice {
  protected:
    // A release in slot b, written and verified.
    static void writeSlotB(unsigned release) {
        putRelease(releaseOf(release));
        UpgradeMpu mpu;
        ASSERT_EQ(install(mpu), 0);
    }

    // A release in a slot as if it had been there for long: the boot loader knows it.
    static void putSlot(const std::string& slot, unsigned release) {
        putPartition("kernel_" + slot, releaseOf(release).kernel);
        putPartition("dtb_" + slot, releaseOf(release).deviceTree);
        putPartition("rootfs_" + slot, releaseOf(release).rootFileSystem);
        setEnvironment(slotVariables(slot, releaseOf(release)));
    }

    // Neither form of activation may go on, and both say why; the environment stays bit for bit.
    static void expectActivationRefused(std::initializer_list<std::string> reasons) {
        const Snapshot before = environmentCopies();
        UpgradeMpu mpu;
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.activate(true), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_TRUE(environmentCopies() == before) << "the environment was touched";
    }
};

TEST_F(MpuActivation, written_slot_starts_next_on_trial) {
    setEnvironment({{"bootcount", "2"}, {"bootlimit", "5"}, {"ethaddr", "00:11:22:33:44:55"}});
    writeSlotB(1);
    UpgradeMpu mpu;
    EXPECT_EQ(mpu.activate(true), 0);
    Variables expected = slotVariables("b", releaseOf(1));
    expected.insert({{"boot_slot", "b"},
                     {"upgrade_available", "1"},
                     {"bootcount", "0"},
                     {"bootlimit", "5"},
                     {"ethaddr", "00:11:22:33:44:55"}});
    EXPECT_TRUE(environment() == expected);
    expectNoRecord();
}

TEST_F(MpuActivation, is_one_save) {
    writeSlotB(1);
    const auto [newest, oldest] = copiesNewestFirst();
    const Snapshot before = environmentCopies();
    ASSERT_EQ(UpgradeMpu().activate(true), 0);
    EXPECT_TRUE(environmentCopies().at(newest) == before.at(newest)) << "both copies were written";
    EXPECT_FALSE(environmentCopies().at(oldest) == before.at(oldest));

    // What was there before is still whole, should the save have been cut off.
    damageEnvironmentCopy(oldest);
    expectEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}});
}

TEST_F(MpuActivation, sets_a_limit_of_starts_where_there_is_none) {
    for (const std::string limit : {"", "0", "00", "-1", "many", "3 "}) {
        SCOPED_TRACE(limit);
        setEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}, {"bootlimit", limit}});
        writeSlotB(1);
        ASSERT_EQ(UpgradeMpu().activate(true), 0);
        expectEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}, {"bootlimit", "3"}});
    }
}

TEST_F(MpuActivation, lasts_over_a_restart_between_writing_and_activation) {
    writeSlotB(1);
    std::filesystem::remove_all(kFirmware);
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
    expectEnvironment({{"boot_slot", "b"}});
}

TEST_F(MpuActivation, of_a_slot_whose_content_has_changed_is_refused) {
    writeSlotB(1);
    for (const std::string name : {"kernel_b", "dtb_b", "rootfs_b"}) {
        SCOPED_TRACE(name);
        const std::string good = partition(name);
        std::string damaged = good;
        damaged[4000] = static_cast<char>(damaged[4000] ^ 1);
        putPartition(name, damaged);
        expectActivationRefused(
            {"slot b cannot be activated", kPartitions + name, "does not hold what it must"});
        expectRecord("b", releaseOf(1));
        putPartition(name, good);
    }
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
}

TEST_F(MpuActivation, with_nothing_written_takes_the_slot_that_does_not_start_next) {
    putSlot("a", 7);
    putSlot("b", 8);
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
    expectEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}, {"bootcount", "0"}});
}

TEST_F(MpuActivation, of_the_running_slot_needs_no_trial) {
    putSlot("a", 7);
    writeSlotB(1);
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.activate(true), 0);
    ASSERT_EQ(mpu.activate(true), 0);
    expectEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}, {"bootcount", "0"}});
    expectEnvironment(slotVariables("a", releaseOf(7)));
    expectEnvironment(slotVariables("b", releaseOf(1)));
}

TEST_F(MpuActivation, of_a_slot_of_unknown_content_is_refused) {
    expectActivationRefused(
        {"slot b cannot be activated", kEnvironmentConfig, "does not say what it must hold"});
    putSlot("b", 8);
    const std::string digest = std::string(64, 'a');
    for (const std::string& value :
         {std::string(), std::string("7"), "0 " + digest, "-1 " + digest, "x " + digest, "12345  " + digest,
          "12345 " + digest.substr(1), "12345 " + digest + "0", "12345 " + std::string(64, 'A'),
          "99999999999999999999 " + digest}) {
        SCOPED_TRACE(value);
        setEnvironment({{"slot_b_dtb", value}});
        expectActivationRefused({"slot b cannot be activated", "does not say what it must hold"});
    }
}

TEST_F(MpuActivation, with_nothing_written_is_refused_when_the_slot_holds_something_else) {
    putSlot("b", 8);
    putPartition("dtb_b", releaseOf(9).deviceTree);
    expectActivationRefused(
        {"slot b cannot be activated", kPartitions + "dtb_b", "does not hold what it must"});
}

TEST_F(MpuActivation, with_a_damaged_record_is_refused_until_the_next_upgrade) {
    putSlot("b", 8);
    const std::string content = R"({"bytes": 1, "sha256": ")" + std::string(64, 'a') + R"("})";
    const std::string parts = R"("kernel": )" + content + R"(, "dtb": )" + content + R"(, "rootfs": )";
    for (const std::string& record :
         {std::string(), std::string("{"), std::string("[]"), std::string(100000, '['), std::string("{}"),
          R"({"slot": 1, )" + parts + content + "}", R"({"slot": "c", )" + parts + content + "}",
          R"({"slot": "b", )" + parts + R"({"bytes": "1"}})", R"({"slot": "b", )" + parts + "7}"}) {
        SCOPED_TRACE(record.substr(0, 100));
        testsupport::writeFile(kWrittenSlot, record);
        ASSERT_TRUE(testsupport::runOnSmallStack([] {
            expectActivationRefused({kWrittenSlot, "a new upgrade replaces"});
        }));
    }
    writeSlotB(1);
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
    expectEnvironment({{"boot_slot", "b"}});
}

TEST_F(MpuActivation, record_that_outlived_its_activation_does_not_count) {
    putSlot("a", 7);
    writeSlotB(1);
    const std::string record = testsupport::readFile(kWrittenSlot);
    ASSERT_EQ(UpgradeMpu().activate(true), 0);
    testsupport::writeFile(kWrittenSlot, record);
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
    expectEnvironment({{"boot_slot", "a"}});
    expectNoRecord();
}

TEST_F(MpuActivation, second_upgrade_without_a_restart_takes_the_activation_back_first) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    ASSERT_EQ(mpu.activate(true), 0);
    putRelease(releaseOf(50));
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    expectEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}});
    ASSERT_EQ(mpu.upgrade(), 0);
    expectEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}});
    ASSERT_EQ(mpu.postUpgrade(), 0);
    EXPECT_EQ(mpu.activate(true), 0);
    expectEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}});
    expectEnvironment(slotVariables("b", releaseOf(50)));
}

TEST_F(MpuActivation, slot_on_trial_is_told_of_and_confirmed) {
    testsupport::writeFile(kRunningSlot, "boot_slot=b");
    setEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}, {"bootcount", "1"}});
    UpgradeMpu mpu;
    EXPECT_TRUE(testsupport::loggedWith(2, {"slot b is on trial, start 1 of 3", "activate(false)"}));
    EXPECT_EQ(mpu.activate(false), 0);
    expectEnvironment(
        {{"boot_slot", "b"}, {"upgrade_available", "0"}, {"bootcount", "0"}, {"bootlimit", "3"}});

    testsupport::clearCapturedLog();
    EXPECT_EQ(UpgradeMpu().activate(false), 0);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(MpuActivation, confirmation_has_nothing_to_do_for_a_slot_that_is_not_on_trial) {
    const Snapshot before = environmentCopies();
    EXPECT_EQ(UpgradeMpu().activate(false), 0);
    EXPECT_TRUE(environmentCopies() == before);
}

TEST_F(MpuActivation, confirmation_leaves_a_slot_alone_that_was_activated_and_not_started) {
    writeSlotB(1);
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.activate(true), 0);
    const Snapshot before = environmentCopies();
    EXPECT_EQ(mpu.activate(false), 0);
    EXPECT_TRUE(environmentCopies() == before);
}

TEST_F(MpuActivation, upgrade_while_the_running_slot_is_on_trial_tells_that_nothing_is_left_to_fall_back_to) {
    setEnvironment({{"upgrade_available", "1"}});
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(testsupport::loggedWith(2, {"slot b is written while slot a is on trial"}));
    expectEnvironment({{"boot_slot", "a"}, {"upgrade_available", "1"}});
}

TEST_F(MpuActivation, one_damaged_copy_of_the_environment_does_no_harm) {
    for (const std::string copy : {"env_a", "env_b"}) {
        SCOPED_TRACE(copy);
        setEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}});
        setEnvironment({{"bootcount", "0"}});
        damageEnvironmentCopy(copy);
        writeSlotB(1);
        EXPECT_EQ(UpgradeMpu().activate(true), 0);
        expectEnvironment({{"boot_slot", "b"}, {"upgrade_available", "1"}});
    }
}

TEST_F(MpuActivation, damaged_environment_is_refused_before_anything_is_written) {
    damageEnvironmentCopy("env_a");
    damageEnvironmentCopy("env_b");
    const Snapshot before = partitions();
    const Snapshot environmentBefore = environmentCopies();
    UpgradeMpu mpu;
    EXPECT_TRUE(mpu.initOk);
    testsupport::clearCapturedLog();
    EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(testsupport::loggedWith(
        1, {kEnvironmentConfig, kPartitions + "env_a", kPartitions + "env_b", "restart", "fw_setenv"}));
    EXPECT_LT(mpu.activate(false), 0);
    expectActivationRefused({kEnvironmentConfig, "neither copy"});
    EXPECT_TRUE(partitions() == before);
    EXPECT_TRUE(environmentCopies() == environmentBefore);

    // As the message says.
    testsupport::writeFile("/tmp/environment", "boot_slot=a\n");
    testsupport::outputOf("fw_setenv -c " + kEnvironmentConfig + " -f /tmp/environment 2>&1");
    EXPECT_EQ(install(mpu), 0);
    EXPECT_EQ(mpu.activate(true), 0);
    expectEnvironment({{"boot_slot", "b"}, {"bootlimit", "3"}});
}

TEST_F(MpuActivation, environment_without_a_slot_of_this_device_is_refused) {
    for (const std::string slot : {"", "c"}) {
        SCOPED_TRACE(slot);
        setEnvironment({{"boot_slot", slot}});
        UpgradeMpu mpu;
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
        EXPECT_TRUE(testsupport::loggedWith(
            1, {kEnvironmentConfig, "boot_slot is \"" + slot + "\"", "'fw_setenv boot_slot a'"}));
        expectActivationRefused({"boot_slot"});
    }
}

TEST_F(MpuActivation, environment_that_is_not_where_its_file_says_is_refused) {
    const std::string good = testsupport::readFile(kEnvironmentConfig);
    const std::string copyA = kPartitions + "env_a 0x0 0x4000\n";
    const std::map<std::string, std::string> problems = {
        {"", "must have two lines"},
        {copyA, "must have two lines"},
        {"# " + copyA + copyA, "must have two lines"},
        {copyA + copyA, "in the same place"},
        {copyA + kPartitions + "env_c 0x0 0x4000\n",
         kPartitions + "env_c: the boot environment cannot be opened"},
        {copyA + kPartitions + "env_b 0x0 size\n", "must have two lines"},
        {copyA + kPartitions + "env_b 0x0 0x2000\n", "cannot be read: Invalid argument"},
    };
    for (const auto& [text, problem] : problems) {
        SCOPED_TRACE(text);
        testsupport::writeFile(kEnvironmentConfig, text);
        UpgradeMpu mpu;
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, {kEnvironmentConfig, problem}));
    }
    std::filesystem::remove(kEnvironmentConfig);
    testsupport::clearCapturedLog();
    EXPECT_LT(UpgradeMpu().preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(
        testsupport::loggedWith(1, {kEnvironmentConfig, "cannot be read: No such file or directory"}));
}

TEST_F(MpuActivation, whatever_the_tool_wrote_is_read_and_kept) {
    testsupport::writeFile("/tmp/script", "serial# KV-1\nlong " + std::string(3000, 'x') + "\nempty\n");
    testsupport::outputOf("fw_setenv -c " + kEnvironmentConfig + " -s /tmp/script");
    Variables expected = environment();
    writeSlotB(1);
    ASSERT_EQ(UpgradeMpu().activate(true), 0);
    expected["boot_slot"] = "b";
    expected["upgrade_available"] = "1";
    for (const auto& [name, value] : slotVariables("b", releaseOf(1))) {
        expected[name] = value;
    }
    EXPECT_TRUE(environment() == expected);
}

}  // namespace
