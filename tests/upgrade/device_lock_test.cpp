// The lock that everything takes that changes the device, and the calls of the library that take it.

#include "upgrade/device_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "tests/upgrade/upgrade_run_support.h"

namespace {

bool locksAreOut = false;  // of directories: the file system knows none

bool isDirectory(int file) {
    struct stat status = {};
    return fstat(file, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

// Takes the place of the C library's for the library under test.
extern "C" __attribute__((visibility("default"))) int flock(int file, int operation) noexcept {
    if (locksAreOut && isDirectory(file)) {
        errno = ENOLCK;
        return -1;
    }
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

namespace {

using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

// Another process that holds the lock until it is killed.
class Holder {
  public:
    explicit Holder(int operation = LOCK_EX) {
        int ready[2] = {};
        EXPECT_EQ(pipe(ready), 0);
        pid = fork();
        if (pid == 0) {
            const int directory = open("/config", O_RDONLY | O_DIRECTORY);
            const bool locked = directory >= 0 && flock(directory, operation) == 0;
            (void)!write(ready[1], locked ? "y" : "n", 1);
            for (;;) {
                pause();
            }
        }
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
        close(ready[1]);
    }
    ~Holder() { end(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    void end() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            pid = 0;
        }
    }

    pid_t pid = 0;
};

std::string ownCommand() {
    std::string command = readFile("/proc/self/cmdline");
    for (char& character : command) {
        character = character == '\0' ? ' ' : character;
    }
    return command.substr(0, command.find_last_not_of(' ') + 1);
}

class DeviceLock : public runtest::UpgradeRun {
  protected:
    void TearDown() override {
        locksAreOut = false;
        UpgradeRun::TearDown();
    }

    static void expectRefusal(const std::string& function, const Holder& holder) {
        EXPECT_TRUE(fake::logged(1, function + ": the device is being changed by process " +
                                        std::to_string(holder.pid) + " (" + ownCommand() + ")\n"))
            << function;
    }
};

TEST_F(DeviceLock, that_is_free_is_taken_and_given_back) {
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    UpgradeLockHolder holder;
    EXPECT_TRUE(UPGRADE_is_device_locked(&holder));
    EXPECT_EQ(holder.pid, getpid());
    EXPECT_EQ(holder.command, ownCommand());
    UPGRADE_unlock_device();
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
    const Holder other;  // which would not get it
}

TEST_F(DeviceLock, is_taken_again_by_the_process_that_has_it) {
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    std::thread([] { EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN); }).join();
    UPGRADE_unlock_device();
    EXPECT_TRUE(UPGRADE_is_device_locked(nullptr));
    UPGRADE_unlock_device();
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
    UPGRADE_unlock_device();  // once too often, which does no harm
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    EXPECT_TRUE(UPGRADE_is_device_locked(nullptr));
    UPGRADE_unlock_device();
}

TEST_F(DeviceLock, of_another_process_is_refused_with_who_holds_it) {
    const Holder other;
    UpgradeLockHolder holder;
    EXPECT_EQ(UPGRADE_lock_device(&holder), UPGRADE_LOCK_HELD);
    EXPECT_EQ(holder.pid, other.pid);
    EXPECT_EQ(holder.command, ownCommand());
    holder = {};
    EXPECT_TRUE(UPGRADE_is_device_locked(&holder));
    EXPECT_EQ(holder.pid, other.pid);
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_HELD);
}

TEST_F(DeviceLock, ends_with_the_process_that_holds_it) {
    Holder other;
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_HELD);
    other.end();
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    UPGRADE_unlock_device();
}

TEST_F(DeviceLock, leaves_no_descriptor_to_the_commands_of_a_run) {
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    EXPECT_EQ(COMMON_YR::runSystem("ls -l /proc/self/fd | grep -q /config && exit 1; exit 0"), 0);
    UPGRADE_unlock_device();
}

TEST_F(DeviceLock, that_is_only_asked_for_is_no_holder) {
    const Holder question(LOCK_SH);
    UpgradeLockHolder holder;
    EXPECT_EQ(UPGRADE_lock_device(&holder), UPGRADE_LOCK_HELD);  // one that never ends
    EXPECT_EQ(holder.pid, 0);
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
}

TEST_F(DeviceLock, has_no_place_where_directories_cannot_be_locked) {
    locksAreOut = true;
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_NO_PLACE);
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
}

TEST_F(DeviceLock, of_another_process_keeps_a_run_from_beginning) {
    runtest::writePackage(runtest::kInputPackage);
    writeFile(UpgradeProc::storePart + "/kept", "kept");
    const Holder other;
    EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), -1);
    expectRefusal("UPGRADE_main_proc_fun", other);
    EXPECT_TRUE(exists(UpgradeProc::storePart + "/kept"));
    EXPECT_FALSE(exists(UpgradeProc::upgradePkg));
    EXPECT_FALSE(exists(runtest::kLastRuntime));
    EXPECT_TRUE(fake::node().messages().empty());
}

TEST_F(DeviceLock, of_another_process_keeps_an_activation_from_beginning) {
    proc().setUpgraded(true);
    writeFile(UpgradeProc::currentPkg, "old");
    writeFile(UpgradeProc::rollbackPkg, "flashed");
    const Holder other;
    EXPECT_EQ(UPGRADE_activate(), -1);
    expectRefusal("UPGRADE_activate", other);
    EXPECT_TRUE(UPGRADE_isUpgraded());
    EXPECT_EQ(readFile(UpgradeProc::currentPkg), "old");
}

TEST_F(DeviceLock, of_another_process_keeps_a_rollback_from_beginning) {
    runtest::writePackage(UpgradeProc::rollbackPkg);
    const Holder other;
    EXPECT_EQ(UPGRADE_rollback_mpu(), -1);
    expectRefusal("UPGRADE_rollback_mpu", other);
    EXPECT_FALSE(UPGRADE_isUpgraded());
    EXPECT_FALSE(exists(UpgradeProc::recvPkg));
}

TEST_F(DeviceLock, of_another_process_keeps_the_start_from_changing_anything) {
    constexpr const char* kOrigin = "/etc/kavro/origin.pkg.tar.gz";
    writeFile(kOrigin, "an archive");
    Holder other;
    std::string directory;
    EXPECT_EQ(UPGRADE_init(directory), 0);
    expectRefusal("UPGRADE_init", other);
    EXPECT_EQ(directory, "/firmware");
    EXPECT_TRUE(exists(kOrigin));
    EXPECT_FALSE(exists(UpgradeProc::currentCfg));
    other.end();
    EXPECT_EQ(UPGRADE_init(directory), 0);
    EXPECT_FALSE(exists(kOrigin));
    EXPECT_TRUE(exists(UpgradeProc::currentCfg));
}

TEST_F(DeviceLock, is_held_by_a_run_and_given_back_at_its_end) {
    runtest::writePackage(runtest::kInputPackage);
    std::atomic<bool> wasHeld{false};
    {
        const runtest::Recorder recorder([&](const runtest::Recorder::Event&) {
            if (UPGRADE_is_device_locked(nullptr)) {
                wasHeld = true;
            }
        });
        EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), 0);
    }
    EXPECT_TRUE(wasHeld);
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
}

TEST_F(DeviceLock, without_a_place_keeps_no_run_from_beginning) {
    runtest::writePackage(runtest::kInputPackage);
    locksAreOut = true;
    EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), 0);
}

}  // namespace
