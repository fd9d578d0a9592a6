// The flash driver of the main processor when power or storage fails, at every single call that reaches storage.
// The calls below take the place of libc's for all libraries of the process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "tests/platform/captured_log.h"
#include "tests/platform/flash/mpu_device.h"

namespace {

// What storage does from its `from`th call on (1 the first), and to which files it does it.
struct Storage {
    enum class Failure { kNone, kPowerCut, kError, kFlushError, kLostWrite, kWrongWrite };
    Failure failure = Failure::kNone;
    int from = 1;
    int error = EIO;
    std::string onlyTo;  // a path; empty: to all
    int calls = 0;
    std::set<std::string> flushed;
    std::set<std::string> dropped;  // whose cached content was let go
    std::function<void()> inFirstWrite;
    std::string firstWriteTo;  // a path; empty: to any file
};
Storage storage;

// The drivers read on a thread of their own. Recursive, for what a test does in the first write.
std::recursive_mutex storageMutex;
using StorageLock = std::lock_guard<std::recursive_mutex>;

constexpr int kCutStatus = 99;

std::string pathOf(int fd) {
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return {path, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

// Whether this call fails in the way that is asked for. Standard streams are no storage.
bool strikes(Storage::Failure failure, int fd) {
    return storage.failure == failure && storage.calls >= storage.from && fd > STDERR_FILENO &&
           (storage.onlyTo.empty() || pathOf(fd) == storage.onlyTo);
}

void countCall(int fd) {
    storage.calls += fd > STDERR_FILENO ? 1 : 0;
}

bool failsWithError(int fd, Storage::Failure failure = Storage::Failure::kError) {
    if (strikes(failure, fd)) {
        errno = storage.error;
        return true;
    }
    return false;
}

// Without a word: not even a sanitizer looks at what is left.
void endProcess() {
    syscall(SYS_exit_group, kCutStatus);
}

void cutPower(int fd) {
    if (strikes(Storage::Failure::kPowerCut, fd)) {
        endProcess();
    }
}

// A write of any kind; writePart(length) does the first bytes of it.
template <typename WritePart>
ssize_t writeAnyhow(int fd, const void* data, std::size_t length, const WritePart& writePart) {
    const StorageLock lock(storageMutex);
    countCall(fd);
    if (storage.firstWriteTo.empty() || pathOf(fd) == storage.firstWriteTo) {
        if (const auto during = std::exchange(storage.inFirstWrite, {})) {
            during();
        }
    }
    if (strikes(Storage::Failure::kPowerCut, fd)) {
        (void)!writePart(data, length / 2);
        endProcess();
    }
    if (failsWithError(fd)) {
        return -1;
    }
    if (strikes(Storage::Failure::kLostWrite, fd)) {
        return static_cast<ssize_t>(length);
    }
    if (strikes(Storage::Failure::kWrongWrite, fd)) {
        std::string wrong(static_cast<const char*>(data), length);
        wrong[length / 2] = static_cast<char>(wrong[length / 2] ^ 4);
        return writePart(wrong.data(), length);
    }
    return writePart(data, length);
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) {
    return writeAnyhow(fd, data, length, [fd, offset](const void* part, size_t partLength) {
        return syscall(SYS_pwrite64, fd, part, partLength, offset);
    });
}

ssize_t write(int fd, const void* data, size_t length) {
    return writeAnyhow(fd, data, length, [fd](const void* part, size_t partLength) {
        return syscall(SYS_write, fd, part, partLength);
    });
}

int fsync(int fd) {
    const StorageLock lock(storageMutex);
    countCall(fd);
    cutPower(fd);
    storage.flushed.insert(pathOf(fd));
    if (failsWithError(fd) || failsWithError(fd, Storage::Failure::kFlushError)) {
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

int rename(const char* from, const char* to) noexcept {
    constexpr int kNoStream = 1000;
    const StorageLock lock(storageMutex);
    countCall(kNoStream);
    cutPower(kNoStream);
    return failsWithError(kNoStream) ? -1
                                     : static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

ssize_t pread(int fd, void* buffer, size_t length, off_t offset) {
    const StorageLock lock(storageMutex);
    countCall(fd);
    return failsWithError(fd) ? -1 : syscall(SYS_pread64, fd, buffer, length, offset);
}

int posix_fadvise(int fd, off_t offset, off_t length, int advice) noexcept {
    if (advice == POSIX_FADV_DONTNEED) {
        const StorageLock lock(storageMutex);
        storage.dropped.insert(pathOf(fd));
    }
    return static_cast<int>(syscall(SYS_fadvise64, fd, offset, length, advice));
}
}
#pragma GCC visibility pop

namespace {

using Failure = Storage::Failure;
using testsupport::kEnvironmentConfig;
using testsupport::kFirmware;
using testsupport::kPartitions;
using testsupport::kWrittenSlot;
using testsupport::releaseOf;
using testsupport::Snapshot;
using testsupport::Variables;

class MpuInterruption : public testsupport::MpuDevice {
  protected:
    void TearDown() override { storage = {}; }

    // Runs the work with storage failing from that call on; returns the work's result.
    static int runWith(Failure failure, int from, const std::function<int()>& work) {
        storage = {};
        storage.failure = failure;
        storage.from = from;
        const int result = work();
        storage.failure = Failure::kNone;
        return result;
    }

    // Runs the work in a process that ends within the `cut`th call. False when it ended before.
    static bool isCutOff(int cut, const std::function<int()>& work) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(runWith(Failure::kPowerCut, cut, work) == 0 ? 0 : 1);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == kCutStatus) {
            return true;
        }
        EXPECT_EQ(WEXITSTATUS(status), 0) << "failed without a cut";
        return false;
    }

    // What a partition's name leads to.
    static std::string storageOf(const std::string& name) {
        return std::filesystem::canonical(kPartitions + name);
    }

    static int countCalls(const std::function<int()>& work) {
        EXPECT_EQ(runWith(Failure::kNone, 1, work), 0);
        return storage.calls;
    }

    // The running slot and its environment, bit for bit.
    struct Untouched {
        Snapshot environment = environmentCopies();
        std::string kernel = partition("kernel_a");
        std::string deviceTree = partition("dtb_a");
        std::string rootFileSystem = partition("rootfs_a");

        void expect() const {
            EXPECT_TRUE(environmentCopies() == environment) << "the environment was touched";
            EXPECT_TRUE(partition("kernel_a") == kernel && partition("dtb_a") == deviceTree &&
                        partition("rootfs_a") == rootFileSystem)
                << "the running slot was touched";
        }
    };

    static int installOnce(bool withLoader = true) {
        UpgradeMpu mpu;
        return install(mpu, withLoader);
    }
    static int activateOnce() { return UpgradeMpu().activate(true); }
};

TEST_F(MpuInterruption, power_cut_anywhere_in_a_run_leaves_the_running_slot_and_its_environment) {
    const std::string loaderBefore = partition("bootloader");
    const Untouched untouched;
    int cut = 1;
    for (; isCutOff(cut, [] { return installOnce(); }); ++cut) {
        SCOPED_TRACE("cut within call " + std::to_string(cut));
        untouched.expect();
        if (partition("bootloader") != loaderBefore) {
            Snapshot expected = partitions();
            overlaySlot(expected, "b", releaseOf(1));
            EXPECT_TRUE(partitions() == expected)
                << "the bootloader was written before the slot was complete";
        }
        if (!testsupport::exists(kWrittenSlot)) {
            EXPECT_LT(activateOnce(), 0);
            untouched.expect();
        }
        ASSERT_LT(cut, 1000);
    }
    EXPECT_GT(cut, 10);
    expectRecord("b", releaseOf(1));
}

TEST_F(MpuInterruption, record_is_there_whole_or_not_at_all) {
    for (int cut = 1; isCutOff(cut, [] { return installOnce(false); }); ++cut) {
        SCOPED_TRACE("cut within call " + std::to_string(cut));
        if (testsupport::exists(kWrittenSlot)) {
            expectRecord("b", releaseOf(1));
        }
        std::remove(kWrittenSlot.c_str());
    }
}

TEST_F(MpuInterruption,
       power_cut_while_an_activated_slot_is_written_again_never_leaves_it_to_start_half_written) {
    ASSERT_EQ(installOnce(false), 0);
    ASSERT_EQ(activateOnce(), 0);
    const std::string activated = testsupport::readFile(kPartitions + "env_a");
    putRelease(releaseOf(50));
    Snapshot slotB = partitions();
    for (int cut = 1; isCutOff(cut, [] { return installOnce(false); }); ++cut) {
        SCOPED_TRACE("cut within call " + std::to_string(cut));
        if (environment().at("boot_slot") == "b") {
            EXPECT_TRUE(partitions() == slotB) << "a half-written slot would start";
        } else {
            expectEnvironment({{"boot_slot", "a"}, {"upgrade_available", "0"}});
        }
    }
    expectEnvironment({{"boot_slot", "a"}});
    expectRecord("b", releaseOf(50));
}

TEST_F(MpuInterruption, power_cut_anywhere_in_an_activation_leaves_the_old_environment_or_the_new) {
    ASSERT_EQ(installOnce(false), 0);
    const Variables before = environment();
    Variables after = slotVariables("b", releaseOf(1));
    after.insert({{"boot_slot", "b"}, {"upgrade_available", "1"}, {"bootcount", "0"}, {"bootlimit", "3"}});
    const Snapshot copies = environmentCopies();
    const std::string record = testsupport::readFile(kWrittenSlot);
    int cut = 1;
    for (; isCutOff(cut, activateOnce); ++cut) {
        SCOPED_TRACE("cut within call " + std::to_string(cut));
        EXPECT_TRUE(environment() == before || environment() == after);
        EXPECT_EQ(activateOnce(), environment() == after ? -1 : 0)
            << "a slot of unknown content must not be started, a written one must";
        testsupport::writeFile(kWrittenSlot, record);
        putPartition("env_a", copies.at("env_a"));
        putPartition("env_b", copies.at("env_b"));
    }
    EXPECT_GT(cut, 2);
    EXPECT_TRUE(environment() == after);
    expectNoRecord();
}

// As when a run is begun although the flashing of the one before goes on.
TEST_F(MpuInterruption, bootloader_is_written_to_its_end_though_the_driver_goes_away) {
    const std::string partition = kPartitions + "bootloader";
    const std::string loader = testsupport::contentOf(2500000, 7);
    std::filesystem::remove(partition);
    testsupport::writeFile(partition, std::string(loader.size(), 'x'));
    testsupport::writeFile(kFirmware + "/bld_release.bin", loader);
    auto mpu = std::make_unique<UpgradeMpu>();
    UpgradeMpu* const driver = mpu.get();
    ASSERT_EQ(driver->preUpgrade(kFirmware, true, true), 0);
    std::thread leaving;
    storage = {};
    storage.firstWriteTo = partition;
    // cppcheck-suppress danglingLifetime  // called within upgrade() alone
    storage.inFirstWrite = [&] {
        leaving = std::thread([&mpu] { mpu.reset(); });
        usleep(100000);
    };
    EXPECT_EQ(driver->upgrade(), 0);
    ASSERT_TRUE(leaving.joinable()) << "the bootloader was not written";
    leaving.join();
    EXPECT_TRUE(testsupport::readFile(partition) == loader);
}

TEST_F(MpuInterruption, operation_during_another_one_is_refused_and_leaves_it_alone) {
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    int called = 0;
    storage = {};
    // cppcheck-suppress danglingLifetime  // called within upgrade() alone
    storage.inFirstWrite = [&] {
        for (const int result : {mpu.init(), mpu.preUpgrade(kFirmware, false, true), mpu.upgrade(),
                                 mpu.postUpgrade(), mpu.activate(true), mpu.activate(false)}) {
            EXPECT_LT(result, 0);
            ++called;
        }
    };
    EXPECT_EQ(mpu.upgrade(), 0);
    EXPECT_EQ(called, 6);
    EXPECT_TRUE(testsupport::loggedWith(1, {"UpgradeMpu: ", "still at work"}));
    EXPECT_EQ(mpu.postUpgrade(), 0);
    expectRecord("b", releaseOf(1));
}

TEST_F(MpuInterruption, storage_that_fails_anywhere_in_a_run_fails_the_run_and_leaves_the_running_slot) {
    const int calls = countCalls([] { return installOnce(); });
    std::remove(kWrittenSlot.c_str());
    const Untouched untouched;
    for (int from = 1; from <= calls; ++from) {
        SCOPED_TRACE("fails from call " + std::to_string(from));
        testsupport::clearCapturedLog();
        EXPECT_LT(runWith(Failure::kError, from, [] { return installOnce(); }), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, {"UpgradeMpu: ", "/"}));
        untouched.expect();
        std::remove(kWrittenSlot.c_str());
    }
    EXPECT_EQ(installOnce(), 0);
}

TEST_F(MpuInterruption, storage_that_fails_anywhere_in_an_activation_leaves_the_old_environment_or_the_new) {
    ASSERT_EQ(installOnce(false), 0);
    const Variables before = environment();
    const Snapshot copies = environmentCopies();
    const std::string record = testsupport::readFile(kWrittenSlot);
    const int calls = countCalls(activateOnce);
    const Variables after = environment();
    ASSERT_EQ(after.at("boot_slot"), "b");
    for (int from = 1; from <= calls; ++from) {
        SCOPED_TRACE("fails from call " + std::to_string(from));
        testsupport::writeFile(kWrittenSlot, record);
        putPartition("env_a", copies.at("env_a"));
        putPartition("env_b", copies.at("env_b"));
        if (runWith(Failure::kError, from, activateOnce) == 0) {
            EXPECT_TRUE(environment() == after);
        } else {
            EXPECT_TRUE(environment() == before || environment() == after);
        }
    }
}

TEST_F(MpuInterruption, save_of_the_environment_that_fails_is_a_failure_however_it_fails) {
    ASSERT_EQ(installOnce(false), 0);
    for (const Failure failure :
         {Failure::kError, Failure::kFlushError, Failure::kLostWrite, Failure::kWrongWrite}) {
        SCOPED_TRACE(static_cast<int>(failure));
        const Snapshot copies = environmentCopies();
        storage = {};
        storage.failure = failure;
        storage.onlyTo = storageOf(copiesNewestFirst().second);
        testsupport::clearCapturedLog();
        EXPECT_LT(activateOnce(), 0);
        EXPECT_TRUE(testsupport::loggedWith(1, {kEnvironmentConfig, "the boot environment"}));
        storage = {};
        putPartition("env_a", copies.at("env_a"));
        putPartition("env_b", copies.at("env_b"));
    }
    EXPECT_EQ(activateOnce(), 0);
}

TEST_F(MpuInterruption, activation_whose_flush_fails_can_be_tried_again) {
    ASSERT_EQ(installOnce(), 0);
    for (const std::string copy : {"env_a", "env_b"}) {
        storage = {};
        storage.failure = Storage::Failure::kFlushError;
        storage.onlyTo = storageOf(copy);
        const bool failed = activateOnce() < 0;
        storage = {};
        EXPECT_EQ(environment().at("boot_slot"), failed ? "a" : "b") << copy;
        if (failed) {
            EXPECT_EQ(activateOnce(), 0);
            EXPECT_EQ(environment().at("boot_slot"), "b");
            return;
        }
    }
    FAIL() << "no activation failed";
}

TEST_F(MpuInterruption, full_storage_is_a_failure_that_is_named) {
    storage = {};
    storage.failure = Failure::kError;
    storage.error = ENOSPC;
    storage.onlyTo = storageOf("rootfs_b");
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, false, true), 0);
    EXPECT_LT(mpu.upgrade(), 0);
    EXPECT_TRUE(
        testsupport::loggedWith(1, {kPartitions + "rootfs_b", "cannot be written: No space left on device"}));
}

TEST_F(MpuInterruption, write_that_is_lost_or_wrong_is_found) {
    const std::vector<std::string> written = {"kernel_b", "dtb_b", "rootfs_b", "bootloader"};
    for (const Failure failure : {Failure::kLostWrite, Failure::kWrongWrite}) {
        for (const std::string& name : written) {
            SCOPED_TRACE(name);
            for (const std::string& other : written) {
                putPartition(other, testsupport::contentOf(testsupport::kPartitionBytes.at(other), 200));
            }
            const std::string loaderBefore = partition("bootloader");
            storage = {};
            storage.failure = failure;
            storage.onlyTo = storageOf(name);
            testsupport::clearCapturedLog();
            const int result = installOnce();
            storage = {};
            EXPECT_TRUE(testsupport::loggedWith(1, {kPartitions + name, "does not hold what it must"}));
            // The boot loader, which is compared at the end, is touched only when storage holds the slot.
            if (name == "bootloader") {
                EXPECT_EQ(result, -3);
            } else {
                EXPECT_EQ(result, -2);
                EXPECT_TRUE(partition("bootloader") == loaderBefore);
            }
        }
    }
}

TEST_F(MpuInterruption, partitions_are_flushed_and_cached_content_is_let_go_before_it_is_compared) {
    UpgradeMpu mpu;
    ASSERT_EQ(mpu.preUpgrade(kFirmware, true, true), 0);
    ASSERT_EQ(mpu.upgrade(), 0);
    const std::set<std::string> slot = {storageOf("kernel_b"), storageOf("dtb_b"), storageOf("rootfs_b")};
    std::set<std::string> all = slot;
    all.insert(storageOf("bootloader"));
    EXPECT_EQ(storage.flushed, all);
    EXPECT_EQ(storage.dropped, slot);
    storage.dropped.clear();
    ASSERT_EQ(mpu.postUpgrade(), 0);
    EXPECT_EQ(storage.dropped, all);
    storage.dropped.clear();
    ASSERT_EQ(mpu.activate(true), 0);
    EXPECT_TRUE(std::includes(storage.dropped.begin(), storage.dropped.end(), slot.begin(), slot.end()));
}

}  // namespace
