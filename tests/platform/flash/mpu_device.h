// The emulated device as the flash driver of the main processor meets it: partitions, boot environment, release.
//
// The partitions are files or block devices, whatever the device has. Only their first bytes are looked at, so
// that a case is quick whatever their size.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "common/flash_driver.h"
#include "tests/support/device.h"

namespace testsupport {

inline const std::string kConfig = "/etc/kavro/platform.json";
inline const std::string kEnvironmentConfig = "/etc/kavro/fw_env.config";
inline const std::string kRunningSlot = "/run/kavro/running_slot";
inline const std::string kWrittenSlot = "/config/written_slot.json";
inline const std::string kPartitions = "/dev/disk/by-partlabel/";
inline const std::string kFirmware = "/raw/upgrade";

// How much of each partition is filled and looked at; a partition that is a file has this size.
inline const std::map<std::string, std::size_t> kPartitionBytes = {
    {"kernel_a", 300000},  {"kernel_b", 300000},  {"dtb_a", 20000},       {"dtb_b", 20000},
    {"rootfs_a", 4000000}, {"rootfs_b", 4000000}, {"bootloader", 100000},
};

// What a component holds; differs from component to component and from one release to another.
std::string contentOf(std::size_t size, unsigned seed);

struct Release {
    std::string kernel;
    std::string deviceTree;
    std::string rootFileSystem;
    std::string bootloader;
};
Release releaseOf(unsigned number);

using Snapshot = std::map<std::string, std::string>;
using Variables = std::map<std::string, std::string>;

// What a shell command prints; fails the test when it does not exit with 0.
std::string outputOf(const std::string& command);

class MpuDevice : public DeviceTest {
  protected:
    void SetUp() override;

    static void putRelease(const Release& release);

    static long long capacityOf(const std::string& partition);
    // Overwrites the partition's first bytes.
    static void putPartition(const std::string& name, const std::string& content);
    static std::string partition(const std::string& name);
    static Snapshot partitions();

    // The partitions as they must be when this is written into them: what lies behind a component stays.
    static void overlay(Snapshot& snapshot, const std::string& name, const std::string& component);
    static void overlaySlot(Snapshot& snapshot, const std::string& slot, const Release& release);

    // The boot environment as U-Boot's tool sees it, and both copies byte for byte.
    static Variables environment();
    static Snapshot environmentCopies();
    // By U-Boot's tool; an empty value removes the variable.
    static void setEnvironment(const Variables& variables);
    static void damageEnvironmentCopy(const std::string& name);
    // The two copies, the one that was saved last first.
    static std::pair<std::string, std::string> copiesNewestFirst();

    // What the environment says of a slot that holds the release.
    static Variables slotVariables(const std::string& slot, const Release& release);
    static void expectEnvironment(const Variables& expected);

    static void expectRecord(const std::string& slot, const Release& release);
    static void expectNoRecord() { EXPECT_FALSE(exists(kWrittenSlot)); }

    // Replaces one piece of the device's configuration.
    static void editConfig(const std::string& from, const std::string& to);

    // 0, or the number of the step that failed, negative.
    static int install(UpgradeMpu& mpu, bool withLoader = false);
};

}  // namespace testsupport
