// Errors that a healthy machine does not produce. The system calls below take the place of libc's for the
// library.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

// A call that fails with `error` from its `from`th use on (1 the first), `times` times.
struct Fault {
    int error = 0;
    int from = 1;
    int times = 1 << 30;
    std::atomic<int> calls = 0;

    bool strikes() {
        const int call = ++calls;
        if (error == 0 || call < from || call >= from + times) {
            return false;
        }
        errno = error;
        return true;
    }
};

constexpr off_t kBlock = 1 << 20;
constexpr off_t kGrown = 5 * kBlock + 1;

struct Faults {
    Fault fsync;
    Fault rename;
    Fault syncFileRange;
    Fault pwrite;
    Fault pread;
    Fault write;
    Fault close;
    Fault spawn;
    Fault fchmod;
    Fault stat;
    bool shortPwrites = false;
    bool preadSeesNothing = false;
    bool sharesContent = false;
    std::string growsInRead;  // a file that gets a byte more in a read, its first one
    std::string cutInWrite;   // a file that a write, its first one, leaves no more than a block
};
Faults* faults = nullptr;

bool strikes(Fault Faults::*fault) {
    return faults != nullptr && (faults->*fault).strikes();
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int fsync(int fd) {
    return strikes(&Faults::fsync) ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

int stat(const char* path, struct stat* status) noexcept {
    return strikes(&Faults::stat) ? -1 : static_cast<int>(syscall(SYS_newfstatat, AT_FDCWD, path, status, 0));
}

int rename(const char* from, const char* to) noexcept {
    return strikes(&Faults::rename) ? -1
                                    : static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

// A file system that can share content, or one that cannot.
int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    const auto* range = va_arg(arguments, const file_clone_range*);
    va_end(arguments);
    if (request != FICLONERANGE || faults == nullptr || !faults->sharesContent) {
        errno = EOPNOTSUPP;
        return -1;
    }
    off64_t from = 0;
    off64_t to = 0;
    const auto length = static_cast<ssize_t>(range->src_length);
    return syscall(SYS_copy_file_range, range->src_fd, &from, fd, &to, length, 0) == length ? 0 : -1;
}

int sync_file_range(int fd, off64_t offset, off64_t length, unsigned flags) {
    if (strikes(&Faults::syncFileRange)) {
        return -1;
    }
    return static_cast<int>(syscall(SYS_sync_file_range, fd, offset, length, flags));
}

ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) {
    if (strikes(&Faults::pwrite)) {
        return -1;
    }
    if (faults != nullptr && !faults->cutInWrite.empty()) {
        (void)!truncate(std::exchange(faults->cutInWrite, {}).c_str(), kBlock);
    }
    const bool isShort = faults != nullptr && faults->shortPwrites && length > 1;
    return syscall(SYS_pwrite64, fd, data, isShort ? length / 2 : length, offset);
}

ssize_t pread(int fd, void* buffer, size_t length, off_t offset) {
    if (strikes(&Faults::pread)) {
        return -1;
    }
    if (faults != nullptr && !faults->growsInRead.empty()) {
        (void)!truncate(std::exchange(faults->growsInRead, {}).c_str(), kGrown);
    }
    const bool seesNothing = faults != nullptr && faults->preadSeesNothing;
    return seesNothing ? 0 : syscall(SYS_pread64, fd, buffer, length, offset);
}

ssize_t write(int fd, const void* data, size_t length) {
    return fd > STDERR_FILENO && strikes(&Faults::write) ? -1 : syscall(SYS_write, fd, data, length);
}

int close(int fd) {
    const auto result = static_cast<int>(syscall(SYS_close, fd));
    return strikes(&Faults::close) ? -1 : result;
}

int fchmod(int fd, mode_t mode) noexcept {
    return strikes(&Faults::fchmod) ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

// Fails as posix_spawn does: by its result.
int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[], char* const environment[]) {
    if (strikes(&Faults::spawn)) {
        return errno;
    }
    return posix_spawnp(pid, path, actions, attributes, arguments, environment);
}
}
#pragma GCC visibility pop

namespace {

using COMMON_YR::cpFile;
using COMMON_YR::runSystem;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

using Names = std::vector<std::string>;

class FaultTest : public testing::Test {
  protected:
    FaultTest() {
        spill(source, content);
        spill(destination, "old");
        faults = &fault;
    }
    ~FaultTest() override { faults = nullptr; }
    FaultTest(const FaultTest&) = delete;
    FaultTest& operator=(const FaultTest&) = delete;

    void expectCopyFails() {
        EXPECT_LT(cpFile(source, destination), 0);
        faults = nullptr;
        EXPECT_TRUE(slurp(destination) == "old");
        EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    }
    void expectCopyWorks() {
        EXPECT_EQ(cpFile(source, destination), 0);
        faults = nullptr;
        EXPECT_TRUE(slurp(destination) == content);
        EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    }
    long write(std::string text) const {
        return COMMON_YR::writeFile(destination.c_str(), text.data(), text.size(), false);
    }
    void expectWriteFails() {
        EXPECT_LT(write("new"), 0);
        faults = nullptr;
        EXPECT_TRUE(slurp(destination) == "old");
        EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    }

    Faults fault;
    const TempDir directory;
    const std::string source = directory / "source";
    const std::string destination = directory / "destination";
    const std::string content = patterned(20000001);
};

using CpFileFault = FaultTest;

TEST_F(CpFileFault, error_found_only_when_flushing_is_a_failure) {
    for (const int error : {EIO, ENOSPC, EDQUOT}) {
        faults = &fault;
        fault.fsync.error = error;
        expectCopyFails();
    }
    EXPECT_GT(fault.fsync.calls, 0);
}

TEST_F(CpFileFault, error_of_the_early_write_back_is_a_failure) {
    fault.syncFileRange.error = EIO;
    fault.syncFileRange.from = 2;
    fault.syncFileRange.times = 1;
    expectCopyFails();
}

TEST_F(CpFileFault, early_write_back_is_not_needed) {
    fault.syncFileRange.error = ENOSYS;
    expectCopyWorks();
}

TEST_F(CpFileFault, failed_rename_is_a_failure) {
    fault.rename.error = EIO;
    expectCopyFails();
}

// What a kernel that does not tell a mount point says to the rename onto one.
TEST_F(CpFileFault, destination_that_nothing_can_replace_is_written_in_place) {
    ASSERT_EQ(chmod(destination.c_str(), 0640), 0);
    fault.rename.error = EBUSY;
    expectCopyWorks();
    struct stat status = {};
    ASSERT_EQ(stat(destination.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(CpFileFault, error_while_writing_in_place_is_a_failure) {
    fault.rename.error = EBUSY;
    fault.pwrite.error = EIO;
    fault.pwrite.from = 25;  // the copy beside takes 20
    EXPECT_LT(cpFile(source, destination), 0);
    EXPECT_GE(fault.pwrite.calls, fault.pwrite.from);
    faults = nullptr;
    EXPECT_EQ(slurp(destination), "");
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

TEST_F(CpFileFault, what_was_written_in_place_is_flushed) {
    fault.rename.error = EBUSY;
    fault.fsync.error = EIO;
    fault.fsync.from = 2;
    EXPECT_LT(cpFile(source, destination), 0);
    EXPECT_EQ(fault.fsync.calls, 2);
}

TEST_F(CpFileFault, directory_that_cannot_be_flushed_is_a_failure) {
    fault.fsync.error = EIO;
    fault.fsync.from = 2;
    EXPECT_LT(cpFile(source, destination), 0);
    faults = nullptr;
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

TEST_F(CpFileFault, error_on_closing_is_a_failure) {
    fault.close.error = EIO;
    fault.close.times = 1;
    EXPECT_LT(cpFile(source, destination), 0);
}

TEST_F(CpFileFault, content_that_can_be_shared_is_not_copied) {
    fault.sharesContent = true;
    expectCopyWorks();
    EXPECT_EQ(fault.pwrite.calls, 0);
}

TEST_F(CpFileFault, shared_content_is_flushed) {
    fault.sharesContent = true;
    fault.fsync.error = EIO;
    expectCopyFails();
}

TEST_F(CpFileFault, error_while_copying_is_a_failure) {
    for (Fault Faults::*call : {&Faults::pwrite, &Faults::pread}) {
        for (const int error : {EIO, ENOSPC}) {
            faults = &fault;
            (fault.*call).error = error;
            (fault.*call).calls = 0;
            (fault.*call).from = 5;
            expectCopyFails();
            (fault.*call).error = 0;
        }
    }
}

TEST_F(CpFileFault, short_and_interrupted_writes_go_on) {
    fault.shortPwrites = true;
    fault.pwrite.error = EINTR;
    fault.pwrite.from = 4;
    fault.pwrite.times = 2;
    expectCopyWorks();
}

TEST_F(CpFileFault, source_that_ends_early_is_a_failure) {
    fault.preadSeesNothing = true;
    expectCopyFails();
}

// What the source has lost looks like a hole at its end.
TEST_F(CpFileFault, source_that_is_cut_meanwhile_is_a_failure) {
    spill(source, content.substr(0, kBlock));
    ASSERT_EQ(truncate(source.c_str(), 8 * kBlock), 0);
    fault.cutInWrite = source;
    expectCopyFails();
    EXPECT_TRUE(fault.cutInWrite.empty());
}

TEST_F(CpFileFault, write_past_the_cache_that_is_refused_goes_through_it) {
    const int probe = open(destination.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
    if (probe < 0) {
        GTEST_SKIP() << "this file system has nothing but its cache";
    }
    ::close(probe);
    fault.pwrite.error = EINVAL;
    fault.pwrite.times = 1;
    for (const int from : {1, 3, 20}) {
        SCOPED_TRACE(from);
        faults = &fault;
        fault.pwrite.calls = 0;
        fault.pwrite.from = from;
        expectCopyWorks();
        EXPECT_GE(fault.pwrite.calls, from);
    }
    faults = &fault;
    fault.pwrite.calls = 0;
    fault.pwrite.times = 2;
    spill(destination, "old");
    expectCopyFails();
}

TEST_F(CpFileFault, file_system_without_modes_gets_the_content) {
    fault.fchmod.error = EPERM;
    expectCopyWorks();
}

using MvFileFault = FaultTest;

TEST_F(MvFileFault, failed_copy_to_another_file_system_leaves_the_source) {
    fault.rename.error = EXDEV;
    fault.rename.times = 1;
    fault.pwrite.error = EIO;
    EXPECT_LT(COMMON_YR::mvFile(source, destination), 0);
    faults = nullptr;
    EXPECT_TRUE(slurp(source) == content);
    EXPECT_TRUE(slurp(destination) == "old");
}

TEST_F(MvFileFault, copy_to_another_file_system_removes_the_source) {
    fault.rename.error = EXDEV;
    fault.rename.times = 1;
    EXPECT_EQ(COMMON_YR::mvFile(source, destination), 0);
    faults = nullptr;
    EXPECT_TRUE(slurp(destination) == content);
    EXPECT_EQ(directory.names(), Names{"destination"});
}

using WriteFileFault = FaultTest;

TEST_F(WriteFileFault, error_found_only_when_flushing_is_a_failure) {
    fault.fsync.error = EIO;
    expectWriteFails();
}

TEST_F(WriteFileFault, error_while_writing_is_a_failure) {
    for (const int error : {EIO, ENOSPC}) {
        faults = &fault;
        fault.write.error = error;
        expectWriteFails();
    }
}

TEST_F(WriteFileFault, interrupted_write_goes_on) {
    fault.write.error = EINTR;
    fault.write.times = 3;
    EXPECT_EQ(write("new"), 3);
    faults = nullptr;
    EXPECT_EQ(slurp(destination), "new");
}

TEST_F(WriteFileFault, failed_rename_is_a_failure) {
    fault.rename.error = EIO;
    expectWriteFails();
}

TEST_F(WriteFileFault, destination_that_nothing_can_replace_is_written_in_place) {
    fault.rename.error = EBUSY;
    for (const std::string& text : {std::string("new"), std::string("longer than before"), std::string()}) {
        EXPECT_EQ(write(text), static_cast<long>(text.size()));
        EXPECT_EQ(slurp(destination), text);
        EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
    }
}

TEST_F(WriteFileFault, new_file_that_cannot_take_its_name_is_a_failure) {
    fault.rename.error = EBUSY;
    std::string text = "new";
    EXPECT_LT(COMMON_YR::writeFile((directory / "other").c_str(), text.data(), text.size(), false), 0);
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

using CreateFileFault = FaultTest;

TEST_F(CreateFileFault, new_file_that_cannot_be_flushed_is_removed) {
    fault.fsync.error = EIO;
    EXPECT_LT(COMMON_YR::createFile((directory / "marker").c_str(), 0), 0);
    EXPECT_LT(COMMON_YR::createFile(destination.c_str(), 3), 0);
    EXPECT_EQ(directory.names(), (Names{"destination", "source"}));
}

using ReadFault = FaultTest;

TEST_F(ReadFault, error_while_reading_is_negative) {
    fault.pread.error = EIO;
    char buffer[4];
    EXPECT_LT(COMMON_YR::readFileToBufferByOffset(source.c_str(), 0, 4, buffer), 0);
    fault.pread.error = EINTR;
    fault.pread.calls = 0;
    fault.pread.times = 3;
    EXPECT_EQ(COMMON_YR::readFileToBufferByOffset(source.c_str(), 0, 4, buffer), 4);
    EXPECT_EQ(std::memcmp(buffer, content.data(), 4), 0);
}

using RunSystemFault = FaultTest;

TEST_F(ReadFault, file_about_which_storage_gives_no_answer_counts_as_there) {
    const std::string missing = directory / "missing";
    EXPECT_FALSE(COMMON_YR::isFileExist(missing.c_str()));
    fault.stat.error = EIO;
    EXPECT_TRUE(COMMON_YR::isFileExist(missing.c_str()));
    fault.stat.error = EACCES;
    EXPECT_FALSE(COMMON_YR::isFileExist(missing.c_str()));
}

TEST_F(ReadFault, package_that_grows_while_it_is_digested_has_no_digest) {
    const std::string digest = "5f363e0e58a95f06cbe9bbc662c5dfb6";
    spill(source, std::string(kGrown - 1, '\0'));
    EXPECT_TRUE(COMMON_YR::chkFileMd5(source, digest));
    fault.growsInRead = source;
    EXPECT_FALSE(COMMON_YR::chkFileMd5(source, digest));
    EXPECT_TRUE(fault.growsInRead.empty());
}

TEST_F(RunSystemFault, command_that_cannot_be_started_is_negative) {
    for (const int error : {EAGAIN, ENOMEM, ENOENT, E2BIG}) {
        fault.spawn.error = error;
        EXPECT_LT(runSystem("true"), 0);
    }
    fault.spawn.error = 0;
    EXPECT_EQ(runSystem("true"), 0);
}

}  // namespace
