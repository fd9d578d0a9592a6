// The flash driver of the main processor on the emulated device's partitions, made small for these tests.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "common/flash_driver.h"
#include "tests/platform/captured_log.h"
#include "tests/platform/flash/small_stack.h"
#include "tests/support/device.h"

namespace {

const std::string kConfig = "/etc/kavro/platform.json";
const std::string kBootState = "/config/boot_state.json";
const std::string kRunningSlot = "/run/kavro/running_slot";
const std::string kPartitions = "/dev/disk/by-partlabel/";
const std::string kFirmware = "/raw/upgrade";

const std::map<std::string, std::size_t> kPartitionBytes = {
    {"kernel_a", 300000},  {"kernel_b", 300000},  {"dtb_a", 20000},       {"dtb_b", 20000},
    {"rootfs_a", 4000000}, {"rootfs_b", 4000000}, {"bootloader", 100000},
};

// What a component holds; differs from component to component and from one release to another.
std::string contentOf(std::size_t size, unsigned seed) {
    std::string content(size, '\0');
    for (std::size_t index = 0; index < size; ++index) {
        content[index] = static_cast<char>(index * 13 + index / 251 + seed);
    }
    return content;
}

struct Release {
    std::string kernel;
    std::string deviceTree;
    std::string rootFileSystem;
    std::string bootloader;
};

Release releaseOf(unsigned number) {
    return {contentOf(250001, number), contentOf(12345, number + 1), contentOf(3500007, number + 2),
            contentOf(100000, number + 3)};
}

std::string stateJson(const std::string& boot, bool aComplete, bool bComplete, const std::string& pending) {
    const auto text = [](bool value) { return std::string(value ? "true" : "false"); };
    return R"({"boot_slot": ")" + boot + R"(", "complete": {"a": )" + text(aComplete) + R"(, "b": )" +
           text(bComplete) + R"(}, "pending_slot": ")" + pending + R"("})";
}

std::string withoutSpaces(const std::string& text) {
    std::string packed;
    for (const char character : text) {
        if (character != ' ' && character != '\n' && character != '\t') {
            packed += character;
        }
    }
    return packed;
}

using Snapshot = std::map<std::string, std::string>;

class Mpu : public testing::Test {
  protected:
    void SetUp() override {
        for (const auto& [name, bytes] : kPartitionBytes) {
            testsupport::writeFile(kPartitions + name, contentOf(bytes, 200));
        }
        putRelease(releaseOf(1));
    }

    static void putRelease(const Release& release) {
        testsupport::writeFile(kFirmware + "/Image", release.kernel);
        testsupport::writeFile(kFirmware + "/cv22_kavro_qz7.dtb", release.deviceTree);
        testsupport::writeFile(kFirmware + "/ext4", release.rootFileSystem);
        testsupport::writeFile(kFirmware + "/bld_release.bin", release.bootloader);
    }

    static Snapshot partitions() {
        Snapshot snapshot;
        for (const auto& [name, bytes] : kPartitionBytes) {
            snapshot[name] = testsupport::readFile(kPartitions + name);
        }
        return snapshot;
    }

    // The partitions as they must be when this is written into them: what lies behind a component stays.
    static void overlay(Snapshot& snapshot, const std::string& name, const std::string& component) {
        snapshot[name].replace(0, component.size(), component);
    }
    static void overlaySlot(Snapshot& snapshot, const std::string& slot, const Release& release) {
        overlay(snapshot, "kernel_" + slot, release.kernel);
        overlay(snapshot, "dtb_" + slot, release.deviceTree);
        overlay(snapshot, "rootfs_" + slot, release.rootFileSystem);
    }

    static void expectState(const std::string& boot, bool aComplete, bool bComplete,
                            const std::string& pending) {
        EXPECT_EQ(withoutSpaces(testsupport::readFile(kBootState)),
                  withoutSpaces(stateJson(boot, aComplete, bComplete, pending)));
    }

    static int install(UpgradeMpu& mpu, bool withLoader = false) {
        if (mpu.preUpgrade(kFirmware, withLoader, true) < 0) {
            return -1;
        }
        return mpu.upgrade() < 0 ? -2 : mpu.postUpgrade();
    }

    // preUpgrade must refuse, say why, and leave partitions and boot state bit for bit; no upgrade may
    // follow.
    static void expectRefused(bool withLoader, std::initializer_list<std::string> reasons) {
        const Snapshot before = partitions();
        const std::string stateBefore = testsupport::readFile(kBootState);
        UpgradeMpu mpu;
        testsupport::clearCapturedLog();
        EXPECT_LT(mpu.preUpgrade(kFirmware, withLoader, true), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, reasons));
        EXPECT_LT(mpu.upgrade(), 0);
        EXPECT_LT(mpu.postUpgrade(), 0);
        EXPECT_TRUE(partitions() == before) << "a partition was touched";
        EXPECT_EQ(testsupport::readFile(kBootState), stateBefore);
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
    }

    // Replaces one piece of the device's configuration.
    static void editConfig(const std::string& from, const std::string& to) {
        std::string text = testsupport::readFile(kConfig);
        const std::size_t position = text.find(from);
        ASSERT_NE(position, std::string::npos) << from << " in " << text;
        testsupport::writeFile(kConfig, text.replace(position, from.size(), to));
    }
};

TEST_F(Mpu, release_is_written_to_the_slot_that_is_not_running) {
    Snapshot expected = partitions();
    overlaySlot(expected, "b", releaseOf(1));
    UpgradeMpu mpu;
    EXPECT_TRUE(mpu.initOk);
    EXPECT_EQ(mpu.init(), 0);
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(partitions() == expected);
    expectState("a", true, true, "b");
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mpu, slot_a_is_written_while_b_runs) {
    testsupport::writeFile(kRunningSlot, "b");
    testsupport::writeFile(kBootState, stateJson("b", true, true, ""));
    Snapshot expected = partitions();
    overlaySlot(expected, "a", releaseOf(1));
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(partitions() == expected);
    expectState("b", true, true, "a");
}

TEST_F(Mpu, bootloader_is_written_only_when_asked) {
    Snapshot expected = partitions();
    overlaySlot(expected, "b", releaseOf(1));
    overlay(expected, "bootloader", releaseOf(1).bootloader);
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu, true), 0);
    EXPECT_TRUE(partitions() == expected);
}

TEST_F(Mpu, component_as_large_as_its_partition_is_written) {
    testsupport::writeFile(kFirmware + "/Image", contentOf(kPartitionBytes.at("kernel_b"), 9));
    UpgradeMpu mpu;
    EXPECT_EQ(install(mpu), 0);
    EXPECT_TRUE(testsupport::readFile(kPartitions + "kernel_b") ==
                contentOf(kPartitionBytes.at("kernel_b"), 9));
}

TEST_F(Mpu, whole_sequence_fits_on_the_stack_of_a_flashing_job) {
    UpgradeMpu mpu;
    testsupport::runOnJobStack([&] {
        EXPECT_EQ(install(mpu, true), 0);
        EXPECT_EQ(mpu.activate(true), 0);
    });
    expectState("b", true, true, "");
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
        testsupport::writeFile(kFirmware + "/" + component, contentOf(kPartitionBytes.at(partition) + 1, 5));
        expectRefused(true, {kFirmware + "/" + component, "too large for " + kPartitions + partition});
    }
}

TEST_F(Mpu, missing_partition_is_refused) {
    std::filesystem::remove(kPartitions + "dtb_b");
    UpgradeMpu mpu;
    EXPECT_TRUE(mpu.initOk);
    EXPECT_LT(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kPartitions + "dtb_b", "the partition cannot be opened"}));
    EXPECT_FALSE(testsupport::exists(kPartitions + "dtb_b")) << "a partition was created";
}

TEST_F(Mpu, partition_that_is_neither_device_nor_file_is_refused) {
    std::filesystem::remove(kPartitions + "dtb_b");
    std::filesystem::create_symlink("/dev/null", kPartitions + "dtb_b");
    expectRefused(false, {kPartitions + "dtb_b", "is neither a block device nor a file"});
}

TEST_F(Mpu, slots_that_share_a_partition_are_refused) {
    std::filesystem::remove(kPartitions + "rootfs_b");
    std::filesystem::create_symlink(kPartitions + "rootfs_a", kPartitions + "rootfs_b");
    expectRefused(false,
                  {kPartitions + "rootfs_b and " + kPartitions + "rootfs_a", "are the same partition"});
}

TEST_F(Mpu, bootloader_in_a_slots_partition_is_refused) {
    editConfig("partlabel/bootloader", "partlabel/kernel_b");
    expectRefused(true, {kPartitions + "kernel_b", "are the same partition"});
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
    testsupport::writeFile(kConfig, "{ not json");
    expectUnusable({kConfig, "is no JSON object"});
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

TEST_F(Mpu, is_unusable_without_a_place_for_the_boot_state) {
    editConfig("\"boot_state\"", "\"unused\"");
    expectUnusable({kConfig, "names no \"boot_state\""});
}

TEST_F(Mpu, is_unusable_when_the_running_slot_is_unknown) {
    testsupport::writeFile(kRunningSlot, "c\n");
    expectUnusable({kRunningSlot, "\"c\""});
    testsupport::writeFile(kRunningSlot, "");
    expectUnusable({kRunningSlot, "\"\""});
    std::filesystem::remove(kRunningSlot);
    expectUnusable({kRunningSlot, "\"\""});
    editConfig("\"running_slot\"", "\"unused\"");
    expectUnusable({kConfig, "names no \"running_slot\""});
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
    expectState("a", true, true, "b");
}

TEST_F(Mpu, slot_is_incomplete_from_before_the_first_byte_until_it_is_verified) {
    testsupport::writeFile(kBootState, stateJson("a", true, true, ""));
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    expectState("a", true, true, "");
    ASSERT_EQ(mpu.upgrade(), 0);
    expectState("a", true, false, "");
    EXPECT_LT(mpu.activate(true), 0);
    expectState("a", true, false, "");
    ASSERT_EQ(mpu.postUpgrade(), 0);
    expectState("a", true, true, "b");
}

TEST_F(Mpu, component_that_changes_between_check_and_writing_fails) {
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    testsupport::writeFile(kFirmware + "/ext4", contentOf(kPartitionBytes.at("rootfs_b") + 4096, 1));
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {kFirmware + "/ext4", "changed its size after it was checked"}));
    EXPECT_EQ(testsupport::sizeOf(kPartitions + "rootfs_b"),
              static_cast<long>(kPartitionBytes.at("rootfs_b")));
    EXPECT_LT(mpu.postUpgrade(), 0);
    expectState("a", true, false, "");
}

TEST_F(Mpu, damage_after_writing_is_found_by_post_upgrade) {
    for (const std::string name : {"kernel_b", "dtb_b", "rootfs_b"}) {
        SCOPED_TRACE(name);
        UpgradeMpu mpu;
        ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
        ASSERT_EQ(mpu.upgrade(), 0);
        std::string damaged = testsupport::readFile(kPartitions + name);
        damaged[5000] = static_cast<char>(damaged[5000] ^ 1);
        testsupport::writeFile(kPartitions + name, damaged);
        EXPECT_LT(mpu.postUpgrade(), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, {kPartitions + name, "does not hold what was written"}));
        expectState("a", true, false, "");
        EXPECT_LT(mpu.activate(true), 0);
    }
}

TEST_F(Mpu, boot_state_that_cannot_be_saved_stops_the_upgrade_before_the_first_byte) {
    editConfig("/config/boot_state.json", "/nowhere/boot_state.json");
    const Snapshot before = partitions();
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"/nowhere/boot_state.json", "cannot be written"}));
    EXPECT_TRUE(partitions() == before);
}

TEST_F(Mpu, activation_starts_the_written_slot) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    EXPECT_EQ(mpu.activate(true), 0);
    expectState("b", true, true, "");
}

TEST_F(Mpu, activation_after_a_restart_of_the_process_starts_the_written_slot) {
    ASSERT_EQ(install(*std::make_unique<UpgradeMpu>()), 0);
    EXPECT_EQ(UpgradeMpu().activate(true), 0);
    expectState("b", true, true, "");
}

TEST_F(Mpu, activation_without_anything_written_starts_the_complete_other_slot) {
    testsupport::writeFile(kBootState, stateJson("b", true, true, ""));
    testsupport::writeFile(kRunningSlot, "b\n");
    UpgradeMpu mpu;
    EXPECT_EQ(mpu.activate(true), 0);
    expectState("a", true, true, "");
    EXPECT_EQ(mpu.activate(true), 0);
    expectState("b", true, true, "");
}

TEST_F(Mpu, activation_of_an_incomplete_slot_is_refused) {
    testsupport::writeFile(kBootState, stateJson("a", true, false, ""));
    UpgradeMpu mpu;
    EXPECT_LT(mpu.activate(true), 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"slot b holds no complete image", kBootState}));
    expectState("a", true, false, "");
}

TEST_F(Mpu, activate_false_changes_nothing) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    EXPECT_EQ(mpu.activate(false), 0);
    expectState("a", true, true, "b");
}

TEST_F(Mpu, second_upgrade_without_a_restart_takes_the_boot_slot_back_first) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    ASSERT_EQ(mpu.activate(true), 0);
    expectState("b", true, true, "");

    putRelease(releaseOf(50));
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    ASSERT_EQ(mpu.upgrade(), 0);
    expectState("a", true, false, "");
    ASSERT_EQ(mpu.postUpgrade(), 0);
    EXPECT_EQ(mpu.activate(true), 0);
    expectState("b", true, true, "");
    Snapshot expected = partitions();
    overlaySlot(expected, "b", releaseOf(50));
    EXPECT_TRUE(partitions() == expected);
}

TEST_F(Mpu, second_upgrade_of_a_pending_slot_is_no_longer_pending_when_it_fails) {
    UpgradeMpu mpu;
    ASSERT_EQ(install(mpu), 0);
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    std::filesystem::remove(kFirmware + "/ext4");
    EXPECT_LT(mpu.upgrade(), 0);
    expectState("a", true, false, "");
}

TEST_F(Mpu, missing_boot_state_means_that_only_the_running_slot_is_complete) {
    std::filesystem::remove(kBootState);
    UpgradeMpu mpu;
    EXPECT_LT(mpu.activate(true), 0);
    EXPECT_FALSE(testsupport::exists(kBootState));
    EXPECT_FALSE(testsupport::loggedWith(1, {"damaged"}));
    ASSERT_EQ(install(mpu), 0);
    expectState("a", true, true, "b");
}

TEST_F(Mpu, damaged_boot_state_is_said_and_means_that_only_the_running_slot_is_complete) {
    const std::string deep(100000, '[');
    const std::vector<std::string> damages = {
        "",
        "{",
        "[]",
        "7",
        deep,
        "{" + std::string(R"("a":)") + deep,
        stateJson("c", true, true, ""),
        stateJson("a", true, true, "c"),
        stateJson("a", true, true, "") + "x",
        R"({"boot_slot": 1, "complete": {"a": true, "b": true}, "pending_slot": ""})",
        R"({"boot_slot": "a", "complete": {"a": true}, "pending_slot": ""})",
        R"({"boot_slot": "a", "complete": {"a": true, "b": 1}, "pending_slot": ""})",
        R"({"boot_slot": "a", "complete": true, "pending_slot": ""})",
        R"({"boot_slot": "a", "complete": {"a": true, "b": true}})",
    };
    UpgradeMpu mpu;
    for (const std::string& damage : damages) {
        SCOPED_TRACE(damage.substr(0, 100));
        testsupport::clearCapturedLog();
        testsupport::writeFile(kBootState, damage);
        testsupport::runOnJobStack([&] { EXPECT_LT(mpu.activate(true), 0); });
        EXPECT_TRUE(testsupport::loggedWith(1, {kBootState, "damaged"}));
        EXPECT_EQ(testsupport::readFile(kBootState), damage);
    }
    ASSERT_EQ(install(mpu), 0);
    EXPECT_EQ(mpu.activate(true), 0);
    expectState("b", true, true, "");
}

TEST_F(Mpu, driver_may_be_destroyed_while_it_writes_on_another_thread) {
    constexpr unsigned long kLargeBytes = 2UL << 30;  // takes seconds to write
    testsupport::writeSparse(kPartitions + "rootfs_b", kLargeBytes);
    testsupport::writeSparse(kFirmware + "/ext4", kLargeBytes);
    auto mpu = std::make_unique<UpgradeMpu>();
    ASSERT_EQ(mpu->preUpgrade(kFirmware, false, true), 0);
    std::atomic<int> result{1};
    std::thread writer([&result, driver = mpu.get()] { result = driver->upgrade(); });
    while (testsupport::readFile(kPartitions + "kernel_b").substr(0, 1000) !=
           releaseOf(1).kernel.substr(0, 1000)) {
        usleep(1000);
    }
    mpu.reset();
    writer.join();
    EXPECT_LT(result, 0);
    EXPECT_TRUE(testsupport::loggedWith(1, {"the work was given up"}));
    expectState("a", true, false, "");
}

}  // namespace
