// The flash driver of the main processor: what it checks, writes and compares.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "tests/platform/captured_log.h"
#include "tests/platform/flash/mpu_device.h"
#include "tests/support/small_stack.h"

namespace {

using testsupport::contentOf;
using testsupport::kConfig;
using testsupport::kEnvironmentConfig;
using testsupport::kFirmware;
using testsupport::kPartitionBytes;
using testsupport::kPartitions;
using testsupport::kRunningSlot;
using testsupport::kWrittenSlot;
using testsupport::releaseOf;
using testsupport::Snapshot;

class Mpu : public testsupport::MpuDevice {
  protected:
    // preUpgrade must refuse, say why, and leave partitions and environment bit for bit; no upgrade may follow.
    static void expectRefused(bool withLoader, std::initializer_list<std::string> reasons) {
        const Snapshot before = partitions();
        const Snapshot environmentBefore = environmentCopies();
        UpgradeMpu mpu;
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.preUpgrade(kFirmware, withLoader, true), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_LT(mpu.upgrade(), 0);
        EXPECT_LT(mpu.postUpgrade(), 0);
        EXPECT_TRUE(partitions() == before) << "a partition was touched";
        EXPECT_TRUE(environmentCopies() == environmentBefore) << "the environment was touched";
    }

    static void expectUnusable(std::initializer_list<std::string> reasons) {
        testsupport::clearCapturedLog();
        UpgradeMpu mpu;
        EXPECT_FALSE(mpu.initOk);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_LT(mpu.init(), 0);
        EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
        EXPECT_LT(mpu.upgrade(), 0);
        EXPECT_LT(mpu.postUpgrade(), 0);
        EXPECT_LT(mpu.activate(true), 0);
        EXPECT_LT(mpu.activate(false), 0);
    }

    // File systems keep times in ticks of the kernel's clock: waits until one has passed.
    static void waitForAnotherFileTime() {
        const std::string probe = kFirmware + "/probe";
        struct stat first {};
        struct stat now {};
        do {
            testsupport::writeFile(probe, "probe");
            ASSERT_EQ(stat(probe.c_str(), &now), 0);
            if (first.st_ctim.tv_sec == 0) {
                first = now;
            }
        } while (now.st_ctim.tv_sec == first.st_ctim.tv_sec && now.st_ctim.tv_nsec == first.st_ctim.tv_nsec);
    }

    // Replaces a partition by something else.
    static void replacePartition(const std::string& name, const std::string& linkTarget) {
        std::filesystem::remove(kPartitions + name);
        std::filesystem::create_symlink(linkTarget, kPartitions + name);
    }
};

TEST_F(Mpu, release_is_written_to_the_slot_that_is_not_running) {
    Snapshot expected = partitions();
    overlaySlot(expected, "b", releaseOf(1));
    const Snapshot environmentBefore = environmentCopies();
    UpgradeMpu mpu;
    EXPECT_TRUE(mpu.initOk);
    EXPECT_EQ(mpu.init(), 0);
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(partitions() == expected);
    expectRecord("b", releaseOf(1));
    EXPECT_TRUE(environmentCopies() == environmentBefore) << "the environment was touched";
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mpu, slot_a_is_written_while_b_runs) {
    testsupport::writeFile(kRunningSlot, "b");
    setEnvironment({{"boot_slot", "b"}});
    Snapshot expected = partitions();
    overlaySlot(expected, "a", releaseOf(1));
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(partitions() == expected);
    expectRecord("a", releaseOf(1));
    expectEnvironment({{"boot_slot", "b"}});
}

TEST_F(Mpu, running_slot_may_be_named_by_a_kernel_command_line) {
    testsupport::writeFile(kRunningSlot,
                           "console=ttyS0,115200 xboot_slot=a boot_slot=b root=/dev/mmcblk0p7 rw\n");
    setEnvironment({{"boot_slot", "b"}});
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    expectRecord("a", releaseOf(1));
}

TEST_F(Mpu, command_line_that_names_no_slot_of_the_device_makes_the_driver_unusable) {
    testsupport::writeFile(kRunningSlot, "console=ttyS0 boot_slot=c\n");
    expectUnusable({kRunningSlot, "\"c\"", "is none of the device's slots"});
    testsupport::writeFile(kRunningSlot, "console=ttyS0 root=/dev/mmcblk0p7\n");
    expectUnusable({kRunningSlot, "is none of the device's slots"});
}

TEST_F(Mpu, bootloader_is_written_only_when_asked) {
    Snapshot expected = partitions();
    overlaySlot(expected, "b", releaseOf(1));
    overlay(expected, "bootloader", releaseOf(1).bootloader);
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu, true), 0);
    EXPECT_TRUE(partitions() == expected);
    expectRecord("b", releaseOf(1));
}

TEST_F(Mpu, component_as_large_as_its_partition_is_written) {
    const auto capacity = static_cast<std::size_t>(capacityOf("kernel_b"));
    testsupport::writeFile(kFirmware + "/Image", contentOf(capacity, 9));
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(testsupport::readFile(kPartitions + "kernel_b") == contentOf(capacity, 9));
}

TEST_F(Mpu, whole_sequence_fits_on_the_stack_of_a_flashing_job) {
    UpgradeMpu mpu;
    ASSERT_TRUE(testsupport::runOnSmallStack([&] {
        EXPECT_EQ(install(mpu, true), 0);
        EXPECT_EQ(mpu.activate(true), 0);
    }));
    expectEnvironment({{"boot_slot", "b"}});
}

TEST_F(Mpu, missing_component_is_refused) {
    for (const std::string name : {"Image", "cv22_kavro_qz7.dtb", "ext4"}) {
        SCOPED_TRACE(name);
        putRelease(releaseOf(1));
        std::filesystem::remove(kFirmware + "/" + name);
        expectRefused(false, {kFirmware + "/" + name, "cannot be opened"});
    }
}

TEST_F(Mpu, missing_bootloader_is_refused_only_when_asked_for) {
    std::filesystem::remove(kFirmware + "/bld_release.bin");
    expectRefused(true, {kFirmware + "/bld_release.bin", "cannot be opened"});
    UpgradeMpu mpu;
    EXPECT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
}

TEST_F(Mpu, empty_component_is_refused) {
    testsupport::writeFile(kFirmware + "/ext4", "");
    expectRefused(false, {kFirmware + "/ext4", "is empty"});
}

TEST_F(Mpu, component_that_is_no_regular_file_is_refused) {
    std::filesystem::remove(kFirmware + "/Image");
    std::filesystem::create_directory(kFirmware + "/Image");
    expectRefused(false, {kFirmware + "/Image", "is no regular file"});
    std::filesystem::remove(kFirmware + "/Image");
    ASSERT_EQ(mkfifo((kFirmware + "/Image").c_str(), 0600), 0);
    expectRefused(false, {kFirmware + "/Image", "is no regular file"});
}

TEST_F(Mpu, component_one_byte_too_large_leaves_every_partition_as_it_was) {
    const std::map<std::string, std::string> partitionOf = {{"Image", "kernel_b"},
                                                            {"cv22_kavro_qz7.dtb", "dtb_b"},
                                                            {"ext4", "rootfs_b"},
                                                            {"bld_release.bin", "bootloader"}};
    for (const auto& [component, partition] : partitionOf) {
        SCOPED_TRACE(component);
        putRelease(releaseOf(1));
        testsupport::writeSparse(kFirmware + "/" + component,
                                 static_cast<unsigned long>(capacityOf(partition)) + 1);
        expectRefused(true, {kFirmware + "/" + component, "too large for " + kPartitions + partition});
    }
}

TEST_F(Mpu, missing_partition_is_refused_whichever_it_is) {
    for (const std::string name : {"dtb_b", "rootfs_a", "bootloader"}) {
        SCOPED_TRACE(name);
        std::filesystem::rename(kPartitions + name, kPartitions + "away");
        UpgradeMpu mpu;
        EXPECT_TRUE(mpu.initOk);
        EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
        EXPECT_TRUE(testsupport::loggedWith(
            1, {kConfig, "there is no partition " + kPartitions + name, "No such file or directory"}));
        EXPECT_FALSE(testsupport::exists(kPartitions + name)) << "a partition was created";
        std::filesystem::rename(kPartitions + "away", kPartitions + name);
    }
}

TEST_F(Mpu, partition_that_is_neither_device_nor_file_is_refused) {
    replacePartition("dtb_b", "/dev/null");
    UpgradeMpu mpu;
    EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kPartitions + "dtb_b", "is neither a block device nor a file"}));
}

// What a mount does, without the right to mount.
TEST_F(Mpu, partition_in_use_is_refused) {
    struct stat status {};
    ASSERT_EQ(stat((kPartitions + "rootfs_b").c_str(), &status), 0);
    if (!S_ISBLK(status.st_mode)) {
        GTEST_SKIP() << "nobody can claim a file";
    }
    const int claim = open((kPartitions + "rootfs_b").c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(claim, 0);
    expectRefused(false, {kPartitions + "rootfs_b", "the partition is in use", "Device or resource busy"});
    close(claim);
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
}

TEST_F(Mpu, two_names_for_one_partition_are_refused) {
    editConfig("partlabel/rootfs_b", "partlabel/rootfs_a");
    expectRefused(false, {kConfig, "mpu.slots.a.rootfs", "mpu.slots.b.rootfs", "are the same partition"});
}

TEST_F(Mpu, two_paths_to_one_partition_are_refused) {
    replacePartition("rootfs_b", kPartitions + "rootfs_a");
    UpgradeMpu mpu;
    EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(testsupport::loggedWith(
        1, {kConfig, "mpu.slots.a.rootfs (" + kPartitions + "rootfs_a)",
            "mpu.slots.b.rootfs (" + kPartitions + "rootfs_b)", "are the same partition"}));
}

TEST_F(Mpu, bootloader_in_a_slots_partition_is_refused_even_when_it_is_not_written) {
    editConfig("partlabel/bootloader", "partlabel/kernel_a");
    expectRefused(false, {kConfig, "mpu.slots.a.kernel", "mpu.bootloader", "are the same partition"});
}

TEST_F(Mpu, partition_that_holds_the_boot_environment_is_refused) {
    editConfig("partlabel/dtb_b", "partlabel/env_b");
    expectRefused(false, {kConfig, kEnvironmentConfig + " (" + kPartitions + "env_b)", "mpu.slots.b.dtb",
                          "are the same partition"});
}

TEST_F(Mpu, device_without_a_bootloader_partition_refuses_to_write_one) {
    editConfig("\"bootloader\"", "\"unused\"");
    expectRefused(true, {kConfig, "names no \"bootloader\""});
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
}

TEST_F(Mpu, is_unusable_without_configuration) {
    std::filesystem::remove(kConfig);
    expectUnusable({kConfig, "cannot be read: No such file or directory"});
    testsupport::writeFile(kConfig, "{\n  not json");
    expectUnusable({kConfig, "is no JSON: line 2, column 3: "});
    testsupport::writeFile(kConfig, "{}");
    expectUnusable({kConfig, "needs two \"slots\", there are 0"});
}

TEST_F(Mpu, is_unusable_with_one_slot_or_three) {
    const std::string good = testsupport::readFile(kConfig);
    editConfig("\"slots\": {", R"("slots": { "c": { "kernel": "x", "dtb": "y", "rootfs": "z" },)");
    expectUnusable({kConfig, "needs two \"slots\", there are 3"});
    testsupport::writeFile(kConfig,
                           R"({"mpu": {"slots": {"a": {"kernel": "x", "dtb": "y", "rootfs": "z"}}}})");
    expectUnusable({kConfig, "needs two \"slots\", there are 1"});
}

TEST_F(Mpu, is_unusable_when_a_slot_lacks_a_partition) {
    editConfig("\"rootfs\": \"/dev/disk/by-partlabel/rootfs_b\"", "\"rootfs\": \"\"");
    expectUnusable({kConfig, "slot \"b\" names no \"rootfs\""});
}

TEST_F(Mpu, is_unusable_when_a_member_has_the_wrong_type) {
    const std::string good = testsupport::readFile(kConfig);
    editConfig("\"/dev/disk/by-partlabel/rootfs_b\"", "7");
    expectUnusable({kConfig, "mpu.slots.b.rootfs must be a string"});
    testsupport::writeFile(kConfig, good);
    editConfig("\"/etc/kavro/fw_env.config\"", "true");
    expectUnusable({kConfig, "mpu.boot_environment must be a string"});
    testsupport::writeFile(kConfig, good);
    editConfig("\"/dev/disk/by-partlabel/bootloader\"", "[]");
    expectUnusable({kConfig, "mpu.bootloader must be a string"});
}

TEST_F(Mpu, is_unusable_with_a_slot_name_that_no_variable_can_have) {
    for (const std::string name : {"", "b c", "b=", "b.1", "\\u00fc"}) {
        SCOPED_TRACE(name);
        const std::string good = testsupport::readFile(kConfig);
        editConfig("\"b\": {", "\"" + name + "\": {");
        expectUnusable({kConfig, "the slot name", "letters, digits"});
        testsupport::writeFile(kConfig, good);
    }
}

TEST_F(Mpu, is_unusable_without_a_place_for_what_it_must_know) {
    for (const std::string member : {"boot_environment", "written_slot", "running_slot"}) {
        SCOPED_TRACE(member);
        const std::string good = testsupport::readFile(kConfig);
        editConfig("\"" + member + "\"", "\"unused\"");
        expectUnusable({kConfig, "\"mpu\" names no \"" + member + "\""});
        testsupport::writeFile(kConfig, good);
    }
}

TEST_F(Mpu, is_unusable_when_the_running_slot_is_unknown) {
    testsupport::writeFile(kRunningSlot, "c\n");
    expectUnusable({kRunningSlot, "\"c\""});
    testsupport::writeFile(kRunningSlot, "");
    expectUnusable({kRunningSlot, "missing, not readable or empty"});
    std::filesystem::remove(kRunningSlot);
    expectUnusable({kRunningSlot, "missing, not readable or empty"});
}

// Which of the two may be written nobody knows then.
TEST_F(Mpu, running_slot_that_the_boot_loader_cannot_have_started_is_refused) {
    setEnvironment({{"boot_slot", "b"}});
    const Snapshot before = partitions();
    const Snapshot environmentBefore = environmentCopies();
    UpgradeMpu mpu;
    EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"starts slot b", "slot a is said to be running"}));
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(partitions() == before);
    EXPECT_TRUE(environmentCopies() == environmentBefore);
}

TEST_F(Mpu, becomes_usable_by_init_when_the_device_is_known) {
    const std::string good = testsupport::readFile(kConfig);
    testsupport::writeFile(kConfig, "{}");
    UpgradeMpu mpu;
    EXPECT_FALSE(mpu.initOk);
    testsupport::writeFile(kConfig, good);
    EXPECT_EQ(mpu.init(), 0);
    EXPECT_TRUE(mpu.initOk);
    EXPECT_EQ(install(mpu), 0);
}

TEST_F(Mpu, operations_out_of_order_are_refused) {
    const Snapshot before = partitions();
    UpgradeMpu mpu;
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_LT(mpu.postUpgrade(), 0);
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_LT(mpu.postUpgrade(), 0);
    EXPECT_LT(mpu.upgrade(), 0) << "the sequence must start over";
    EXPECT_TRUE(partitions() == before);
    ASSERT_EQ(install(mpu), 0);
    EXPECT_LT(mpu.upgrade(), 0) << "twice";
    EXPECT_LT(mpu.postUpgrade(), 0) << "twice";
    expectRecord("b", releaseOf(1));
}

TEST_F(Mpu, record_of_the_written_slot_is_gone_while_another_release_is_written) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    putRelease(releaseOf(50));
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    expectRecord("b", releaseOf(1));
    ASSERT_EQ(mpu.upgrade(), 0);
    expectNoRecord();
    ASSERT_EQ(mpu.postUpgrade(), 0);
    expectRecord("b", releaseOf(50));
}

TEST_F(Mpu, component_of_another_size_than_was_checked_fails) {
    const Snapshot environmentBefore = environmentCopies();
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    testsupport::writeFile(kFirmware + "/ext4", contentOf(4096, 1));
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kFirmware + "/ext4", "changed after it was checked"}));
    EXPECT_LT(mpu.postUpgrade(), 0);
    expectNoRecord();
    EXPECT_TRUE(environmentCopies() == environmentBefore);
}

TEST_F(Mpu, component_of_another_content_than_was_checked_fails) {
    for (const std::string component : {"Image", "cv22_kavro_qz7.dtb", "ext4"}) {
        SCOPED_TRACE(component);
        putRelease(releaseOf(1));
        UpgradeMpu mpu;
        ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
        waitForAnotherFileTime();
        std::string changed = testsupport::readFile(kFirmware + "/" + component);
        changed.back() = static_cast<char>(changed.back() ^ 1);
        testsupport::writeFile(kFirmware + "/" + component, changed);
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.upgrade(), 0);
        EXPECT_TRUE(
            testsupport::loggedWith(1, {kFirmware + "/" + component, "changed after it was checked"}));
        expectNoRecord();
    }
}

TEST_F(Mpu, bootloader_of_another_content_than_was_checked_is_not_written_at_all) {
    const std::string before = partition("bootloader");
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, true, true), 0);
    waitForAnotherFileTime();
    testsupport::writeFile(kFirmware + "/bld_release.bin", releaseOf(2).bootloader);
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kFirmware + "/bld_release.bin", "changed after it was checked"}));
    EXPECT_TRUE(partition("bootloader") == before);
}

TEST_F(Mpu, damage_after_writing_is_found_by_post_upgrade) {
    for (const std::string name : {"kernel_b", "dtb_b", "rootfs_b", "bootloader"}) {
        SCOPED_TRACE(name);
        UpgradeMpu mpu;
        ASSERT_EQ(mpu.preUpgrade(kFirmware, true, true), 0);
        ASSERT_EQ(mpu.upgrade(), 0);
        std::string damaged = partition(name);
        damaged[5000] = static_cast<char>(damaged[5000] ^ 1);
        putPartition(name, damaged);
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.postUpgrade(), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, {kPartitions + name, "does not hold what it must"}));
        expectNoRecord();
        EXPECT_LT(mpu.activate(true), 0);
    }
}

TEST_F(Mpu, record_that_cannot_be_saved_is_a_failure) {
    editConfig("/config/written_slot.json", "/nowhere/written_slot.json");
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    ASSERT_EQ(mpu.upgrade(), 0);
    EXPECT_LT(mpu.postUpgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"/nowhere/written_slot.json", "cannot be saved"}));
}

TEST_F(Mpu, record_that_cannot_be_removed_stops_the_upgrade_before_the_first_byte) {
    std::filesystem::create_directory(kWrittenSlot);
    const Snapshot before = partitions();
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kWrittenSlot, "cannot be removed"}));
    EXPECT_TRUE(partitions() == before);
}

TEST_F(Mpu, driver_may_be_destroyed_while_it_writes_on_another_thread) {
    constexpr unsigned long kLargeBytes = 2UL << 30;  // takes seconds to write
    const Snapshot environmentBefore = environmentCopies();
    std::filesystem::remove(kPartitions + "rootfs_b");
    testsupport::writeSparse(kPartitions + "rootfs_b", kLargeBytes);
    testsupport::writeSparse(kFirmware + "/ext4", kLargeBytes);
    auto mpu = std::make_unique<UpgradeMpu>();
    ASSERT_EQ(mpu->preUpgrade(kFirmware, false, true), 0);
    std::atomic<int> result{1};
    std::thread writer([&result, driver = mpu.get()] { result = driver->upgrade(); });
    while (partition("kernel_b").substr(0, 1000) != releaseOf(1).kernel.substr(0, 1000)) {
        usleep(1000);
    }
    mpu.reset();
    writer.join();
    EXPECT_LT(result, 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"the work was given up"}));
    expectNoRecord();
    EXPECT_TRUE(environmentCopies() == environmentBefore);
}

}  // namespace
