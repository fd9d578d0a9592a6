// Calls that change nothing that lasts, and can fail all the same: reading, looking, programs, threads, and what goes
// between processes. What a wrapper hides it calls in turn, so those of cancellation points are cancellation points.
#include <dirent.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

#include "tests/fault/interpose/wrapping.h"

namespace {

using fault::Call;
using fault::callAt;
using fault::callOf;
using fault::callOn;
using fault::looked;
using fault::Verdict;

// A call that gives the number of bytes read, or -1. `make` is told how many they may be.
template <typename Make>
ssize_t readBy(const Call& call, Make make) {
    const Verdict verdict = fault::failVerdict(call);
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    return make(
        static_cast<std::size_t>(verdict.atMost >= 0 ? std::min(verdict.atMost, call.bytes) : call.bytes));
}

// A call that gives its error as the result.
template <typename Make>
int resulted(const Call& call, Make make) {
    const Verdict verdict = fault::failVerdict(call);
    return verdict.error != 0 ? verdict.error : make();
}

// A call that gives a pointer, or this.
template <typename Make>
auto pointed(const Call& call, decltype(std::declval<Make>()()) failed, Make make) {
    const Verdict verdict = fault::failVerdict(call);
    if (verdict.error != 0) {
        errno = verdict.error;
        return failed;
    }
    return make();
}

Call callOfProgram(const char* name, const char* path) {
    Call call = callOn(name);
    const char* slash = std::strrchr(path, '/');
    fault::copyPath(call.path, slash == nullptr ? path : slash + 1);
    return call;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER ssize_t read(int fd, void* buffer, size_t bytes) {
    return readBy(callOf("read", fd, static_cast<std::int64_t>(bytes)),
                  [&](std::size_t some) { return KAVRO_REAL(read)(fd, buffer, some); });
}

#define KAVRO_PREAD(name, Offset)                                                                    \
    KAVRO_WRAPPER ssize_t name(int fd, void* buffer, size_t bytes, Offset offset) {                  \
        return readBy(callOf("pread", fd, static_cast<std::int64_t>(bytes)),                         \
                      [&](std::size_t some) { return KAVRO_REAL(name)(fd, buffer, some, offset); }); \
    }
KAVRO_PREAD(pread, off_t)
KAVRO_PREAD(pread64, off64_t)

KAVRO_WRAPPER ssize_t recv(int fd, void* buffer, size_t bytes, int flags) {
    return readBy(callOf("recv", fd, static_cast<std::int64_t>(bytes)),
                  [&](std::size_t some) { return KAVRO_REAL(recv)(fd, buffer, some, flags); });
}

#define KAVRO_MMAP(name, Offset)                                                                      \
    KAVRO_WRAPPER void* name(void* at, size_t bytes, int protection, int flags, int fd,               \
                             Offset offset) noexcept {                                                \
        const auto make = [&] { return KAVRO_REAL(name)(at, bytes, protection, flags, fd, offset); }; \
        return fd < 0 ? make() : pointed(callOf("mmap", fd), MAP_FAILED, make);                       \
    }
KAVRO_MMAP(mmap, off_t)
KAVRO_MMAP(mmap64, off64_t)

#define KAVRO_LSEEK(name, Offset)                                            \
    KAVRO_WRAPPER Offset name(int fd, Offset offset, int from) noexcept {    \
        const Verdict verdict = fault::failVerdict(callOf("lseek", fd));     \
        errno = verdict.error != 0 ? verdict.error : errno;                  \
        return verdict.error != 0 ? -1 : KAVRO_REAL(name)(fd, offset, from); \
    }
KAVRO_LSEEK(lseek, off_t)
KAVRO_LSEEK(lseek64, off64_t)

// ---------------------------------------------------------------------------------------------------------------------
// Looking
// ---------------------------------------------------------------------------------------------------------------------

// NOLINTBEGIN(bugprone-macro-parentheses): the argument is a type
#define KAVRO_STAT(name, Status)                                                                       \
    KAVRO_WRAPPER int name(const char* path, Status* status) noexcept {                                \
        return looked(callAt("stat", AT_FDCWD, path), [&] { return KAVRO_REAL(name)(path, status); }); \
    }
KAVRO_STAT(stat, struct stat)
KAVRO_STAT(stat64, struct stat64)
KAVRO_STAT(lstat, struct stat)
KAVRO_STAT(lstat64, struct stat64)
KAVRO_STAT(statvfs, struct statvfs)
KAVRO_STAT(statvfs64, struct statvfs64)

#define KAVRO_FSTAT(name, Status)                                                         \
    KAVRO_WRAPPER int name(int fd, Status* status) noexcept {                             \
        return looked(callOf("fstat", fd), [&] { return KAVRO_REAL(name)(fd, status); }); \
    }
KAVRO_FSTAT(fstat, struct stat)
KAVRO_FSTAT(fstat64, struct stat64)

#define KAVRO_FSTATAT(name, Status)                                                               \
    KAVRO_WRAPPER int name(int directory, const char* path, Status* status, int flags) noexcept { \
        return looked(callAt("stat", directory, path),                                            \
                      [&] { return KAVRO_REAL(name)(directory, path, status, flags); });          \
    }
// NOLINTEND(bugprone-macro-parentheses)
KAVRO_FSTATAT(fstatat, struct stat)
KAVRO_FSTATAT(fstatat64, struct stat64)

KAVRO_WRAPPER int access(const char* path, int kind) noexcept {
    return looked(callAt("access", AT_FDCWD, path), [&] { return KAVRO_REAL(access)(path, kind); });
}

KAVRO_WRAPPER DIR* opendir(const char* path) {
    return pointed(callAt("opendir", AT_FDCWD, path), nullptr, [&] { return KAVRO_REAL(opendir)(path); });
}

KAVRO_WRAPPER DIR* fdopendir(int fd) {
    return pointed(callOf("opendir", fd), nullptr, [&] { return KAVRO_REAL(fdopendir)(fd); });
}

// ---------------------------------------------------------------------------------------------------------------------
// Descriptors
// ---------------------------------------------------------------------------------------------------------------------

// The descriptor is gone whatever close says.
KAVRO_WRAPPER int close(int fd) {
    const int before = errno;
    const Verdict verdict = fault::failVerdict(callOf("close", fd));
    errno = before;
    const int result = KAVRO_REAL(close)(fd);
    if (verdict.error == 0) {
        return result;
    }
    errno = verdict.error;
    return -1;
}

KAVRO_WRAPPER int flock(int fd, int operation) noexcept {
    return looked(callOf("flock", fd), [&] { return KAVRO_REAL(flock)(fd, operation); });
}

KAVRO_WRAPPER int fchmod(int fd, mode_t mode) noexcept {
    return looked(callOf("fchmod", fd), [&] { return KAVRO_REAL(fchmod)(fd, mode); });
}

KAVRO_WRAPPER int fchown(int fd, uid_t owner, gid_t group) noexcept {
    return looked(callOf("fchown", fd), [&] { return KAVRO_REAL(fchown)(fd, owner, group); });
}

KAVRO_WRAPPER int memfd_create(const char* name, unsigned flags) noexcept {
    return looked(callOn("memfd_create"), [&] { return KAVRO_REAL(memfd_create)(name, flags); });
}

KAVRO_WRAPPER int socket(int domain, int type, int protocol) noexcept {
    return looked(callOn("socket"), [&] { return KAVRO_REAL(socket)(domain, type, protocol); });
}

KAVRO_WRAPPER int connect(int fd, const sockaddr* address, socklen_t length) {
    return looked(callOn("connect"), [&] { return KAVRO_REAL(connect)(fd, address, length); });
}

// ---------------------------------------------------------------------------------------------------------------------
// Programs and threads
// ---------------------------------------------------------------------------------------------------------------------

#define KAVRO_SPAWN(name)                                                                           \
    KAVRO_WRAPPER int name(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions, \
                           const posix_spawnattr_t* attributes, char* const arguments[],            \
                           char* const environment[]) {                                             \
        return resulted(callOfProgram("spawn", path), [&] {                                         \
            return KAVRO_REAL(name)(pid, path, actions, attributes, arguments, environment);        \
        });                                                                                         \
    }
KAVRO_SPAWN(posix_spawn)
KAVRO_SPAWN(posix_spawnp)

KAVRO_WRAPPER pid_t fork() noexcept {
    return looked(callOn("fork"), [] { return KAVRO_REAL(fork)(); });
}

KAVRO_WRAPPER int execve(const char* path, char* const arguments[], char* const environment[]) noexcept {
    return looked(callOfProgram("exec", path),
                  [&] { return KAVRO_REAL(execve)(path, arguments, environment); });
}

KAVRO_WRAPPER pid_t waitpid(pid_t pid, int* status, int options) {
    return looked(callOn("waitpid"), [&] { return KAVRO_REAL(waitpid)(pid, status, options); });
}

KAVRO_WRAPPER int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
    return looked(callOn("waitid"), [&] { return KAVRO_REAL(waitid)(type, id, info, options); });
}

// Whose thread it is stands in the place of the path.
KAVRO_WRAPPER int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                                 void* argument) noexcept {
    Dl_info caller;
    const bool known = dladdr(__builtin_return_address(0), &caller) != 0;
    return resulted(callOfProgram("pthread_create", known ? caller.dli_fname : "unknown"),
                    [&] { return KAVRO_REAL(pthread_create)(thread, attributes, start, argument); });
}
