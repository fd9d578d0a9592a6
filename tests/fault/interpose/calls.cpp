// The calls themselves. What a wrapper hides it calls in turn, so those of cancellation points are cancellation points.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tests/fault/interpose/wrapping.h"

namespace {

using fault::Call;
using fault::callAt;
using fault::callBetween;
using fault::callOf;
using fault::made;
using fault::Verdict;
using fault::written;

std::int64_t bytesOf(const iovec* blocks, int count) {
    std::int64_t bytes = 0;
    for (int i = 0; i < count; ++i) {
        bytes += static_cast<std::int64_t>(blocks[i].iov_len);
    }
    return bytes;
}

constexpr bool changesFile(int flags) {
    return (flags & (O_CREAT | O_TRUNC)) != 0;
}

template <typename Open>
int opened(int directory, const char* path, int flags, Open open) {
    return changesFile(flags) ? made(callAt("open", directory, path), open)
                              : fault::looked(callAt("open_existing", directory, path), open);
}

template <typename Open>
FILE* openedStream(const char* path, const char* mode, Open open) {
    if (path == nullptr || mode == nullptr) {
        return open();
    }
    const Verdict verdict = mode[0] == 'r' ? fault::failVerdict(callAt("fopen_existing", AT_FDCWD, path))
                                           : fault::decide(callAt("fopen", AT_FDCWD, path));
    if (verdict.error != 0) {
        errno = verdict.error;
        return nullptr;
    }
    return open();
}

mode_t modeOf(int flags, va_list& arguments) {
    return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------------------------------

#define KAVRO_OPEN(name)                                                                           \
    KAVRO_WRAPPER int name(const char* path, int flags, ...) {                                     \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const mode_t mode = modeOf(flags, arguments);                                              \
        va_end(arguments);                                                                         \
        return opened(AT_FDCWD, path, flags, [&] { return KAVRO_REAL(name)(path, flags, mode); }); \
    }
KAVRO_OPEN(open)
KAVRO_OPEN(open64)

#define KAVRO_OPENAT(name)                                                             \
    KAVRO_WRAPPER int name(int directory, const char* path, int flags, ...) {          \
        va_list arguments;                                                             \
        va_start(arguments, flags);                                                    \
        const mode_t mode = modeOf(flags, arguments);                                  \
        va_end(arguments);                                                             \
        return opened(directory, path, flags,                                          \
                      [&] { return KAVRO_REAL(name)(directory, path, flags, mode); }); \
    }
KAVRO_OPENAT(openat)
KAVRO_OPENAT(openat64)

#define KAVRO_CREAT(name)                                                                               \
    KAVRO_WRAPPER int name(const char* path, mode_t mode) {                                             \
        return opened(AT_FDCWD, path, O_CREAT | O_TRUNC, [&] { return KAVRO_REAL(name)(path, mode); }); \
    }
KAVRO_CREAT(creat)
KAVRO_CREAT(creat64)

#define KAVRO_FOPEN(name)                                                              \
    KAVRO_WRAPPER FILE* name(const char* path, const char* mode) {                     \
        return openedStream(path, mode, [&] { return KAVRO_REAL(name)(path, mode); }); \
    }
KAVRO_FOPEN(fopen)
KAVRO_FOPEN(fopen64)

// ---------------------------------------------------------------------------------------------------------------------
// Content
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER ssize_t write(int fd, const void* data, size_t bytes) {
    return written(callOf("write", fd, static_cast<std::int64_t>(bytes)),
                   [&](std::size_t some) { return KAVRO_REAL(write)(fd, data, some); });
}

#define KAVRO_PWRITE(name, Offset)                                                                  \
    KAVRO_WRAPPER ssize_t name(int fd, const void* data, size_t bytes, Offset offset) {             \
        return written(callOf("pwrite", fd, static_cast<std::int64_t>(bytes)),                      \
                       [&](std::size_t some) { return KAVRO_REAL(name)(fd, data, some, offset); }); \
    }
KAVRO_PWRITE(pwrite, off_t)
KAVRO_PWRITE(pwrite64, off64_t)

KAVRO_WRAPPER ssize_t writev(int fd, const iovec* blocks, int count) {
    return written(callOf("writev", fd, bytesOf(blocks, count)), [&](std::size_t some) {
        const bool whole = static_cast<std::int64_t>(some) == bytesOf(blocks, count);
        return whole ? KAVRO_REAL(writev)(fd, blocks, count)
                     : KAVRO_REAL(write)(fd, blocks[0].iov_base, std::min(some, blocks[0].iov_len));
    });
}

KAVRO_WRAPPER ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t bytes,
                                      unsigned flags) {
    return written(callOf("copy_file_range", to, static_cast<std::int64_t>(bytes)), [&](std::size_t some) {
        return KAVRO_REAL(copy_file_range)(from, fromOffset, to, toOffset, some, flags);
    });
}

// NOLINTBEGIN(bugprone-macro-parentheses): the argument is a type
#define KAVRO_SENDFILE(name, Offset)                                                                \
    KAVRO_WRAPPER ssize_t name(int to, int from, Offset* offset, size_t bytes) noexcept {           \
        return written(callOf("sendfile", to, static_cast<std::int64_t>(bytes)),                    \
                       [&](std::size_t some) { return KAVRO_REAL(name)(to, from, offset, some); }); \
    }
// NOLINTEND(bugprone-macro-parentheses)
KAVRO_SENDFILE(sendfile, off_t)
KAVRO_SENDFILE(sendfile64, off64_t)

// To the microcontroller: what it is told changes its flash memory. Its end has a name of its own directory, unlike the
// end of a logger.
KAVRO_WRAPPER ssize_t send(int fd, const void* data, size_t bytes, int flags) {
    sockaddr_un peer = {};
    socklen_t length = sizeof(peer);
    if (syscall(SYS_getpeername, fd, &peer, &length) != 0 || peer.sun_family != AF_UNIX ||
        peer.sun_path[0] == '/') {
        return KAVRO_REAL(send)(fd, data, bytes, flags);
    }
    Call call = callAt("send", AT_FDCWD, "/dev/kavro-mcu/link");
    call.bytes = static_cast<std::int64_t>(bytes);
    return written(call, [&](std::size_t some) { return KAVRO_REAL(send)(fd, data, some, flags); });
}

KAVRO_WRAPPER int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto make = [&] { return KAVRO_REAL(ioctl)(fd, request, argument); };
    const bool clones = request == FICLONE || request == FICLONERANGE;
    return clones ? made(callOf("clone", fd), make) : make();
}

#define KAVRO_FTRUNCATE(name, Offset)                                                       \
    KAVRO_WRAPPER int name(int fd, Offset length) noexcept {                                \
        return made(callOf("ftruncate", fd), [&] { return KAVRO_REAL(name)(fd, length); }); \
    }
KAVRO_FTRUNCATE(ftruncate, off_t)
KAVRO_FTRUNCATE(ftruncate64, off64_t)

#define KAVRO_TRUNCATE(name, Offset)                                                                     \
    KAVRO_WRAPPER int name(const char* path, Offset length) noexcept {                                   \
        return made(callAt("truncate", AT_FDCWD, path), [&] { return KAVRO_REAL(name)(path, length); }); \
    }
KAVRO_TRUNCATE(truncate, off_t)
KAVRO_TRUNCATE(truncate64, off64_t)

#define KAVRO_FALLOCATE(name, Offset)                                                                     \
    KAVRO_WRAPPER int name(int fd, int mode, Offset offset, Offset length) {                              \
        return made(callOf("fallocate", fd), [&] { return KAVRO_REAL(name)(fd, mode, offset, length); }); \
    }
KAVRO_FALLOCATE(fallocate, off_t)
KAVRO_FALLOCATE(fallocate64, off64_t)

// It gives its error as the result.
#define KAVRO_POSIX_FALLOCATE(name, Offset)                                                    \
    KAVRO_WRAPPER int name(int fd, Offset offset, Offset length) {                             \
        const Verdict verdict = fault::decide(callOf("posix_fallocate", fd));                  \
        return verdict.error != 0 || verdict.swallowed ? verdict.error                         \
                                                       : KAVRO_REAL(name)(fd, offset, length); \
    }
KAVRO_POSIX_FALLOCATE(posix_fallocate, off_t)
KAVRO_POSIX_FALLOCATE(posix_fallocate64, off64_t)

// ---------------------------------------------------------------------------------------------------------------------
// Flushing
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int fsync(int fd) {
    return made(callOf("fsync", fd), [&] { return KAVRO_REAL(fsync)(fd); });
}

KAVRO_WRAPPER int fdatasync(int fd) {
    return made(callOf("fdatasync", fd), [&] { return KAVRO_REAL(fdatasync)(fd); });
}

KAVRO_WRAPPER int syncfs(int fd) noexcept {
    return made(callOf("syncfs", fd), [&] { return KAVRO_REAL(syncfs)(fd); });
}

KAVRO_WRAPPER int sync_file_range(int fd, off64_t offset, off64_t bytes, unsigned flags) {
    return made(callOf("sync_file_range", fd),
                [&] { return KAVRO_REAL(sync_file_range)(fd, offset, bytes, flags); });
}

// Of everything: it belongs to no path, so it goes by the first of the device's directories.
KAVRO_WRAPPER void sync() noexcept {
    const Verdict verdict = fault::decide(callAt("sync", AT_FDCWD, "/config"));
    if (verdict.error == 0 && !verdict.swallowed) {
        KAVRO_REAL(sync)();
    }
}

// ---------------------------------------------------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------------------------------------------------

KAVRO_WRAPPER int rename(const char* from, const char* to) noexcept {
    return made(callBetween("rename", AT_FDCWD, from, AT_FDCWD, to),
                [&] { return KAVRO_REAL(rename)(from, to); });
}

KAVRO_WRAPPER int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept {
    return made(callBetween("rename", fromDirectory, from, toDirectory, to),
                [&] { return KAVRO_REAL(renameat)(fromDirectory, from, toDirectory, to); });
}

KAVRO_WRAPPER int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
                            unsigned flags) noexcept {
    return made(callBetween("rename", fromDirectory, from, toDirectory, to),
                [&] { return KAVRO_REAL(renameat2)(fromDirectory, from, toDirectory, to, flags); });
}

KAVRO_WRAPPER int unlink(const char* path) noexcept {
    return made(callAt("unlink", AT_FDCWD, path), [&] { return KAVRO_REAL(unlink)(path); });
}

KAVRO_WRAPPER int unlinkat(int directory, const char* path, int flags) noexcept {
    return made(callAt("unlink", directory, path),
                [&] { return KAVRO_REAL(unlinkat)(directory, path, flags); });
}

KAVRO_WRAPPER int remove(const char* path) noexcept {
    return made(callAt("unlink", AT_FDCWD, path), [&] { return KAVRO_REAL(remove)(path); });
}

KAVRO_WRAPPER int rmdir(const char* path) noexcept {
    return made(callAt("rmdir", AT_FDCWD, path), [&] { return KAVRO_REAL(rmdir)(path); });
}

KAVRO_WRAPPER int mkdir(const char* path, mode_t mode) noexcept {
    return made(callAt("mkdir", AT_FDCWD, path), [&] { return KAVRO_REAL(mkdir)(path, mode); });
}

KAVRO_WRAPPER int mkdirat(int directory, const char* path, mode_t mode) noexcept {
    return made(callAt("mkdir", directory, path), [&] { return KAVRO_REAL(mkdirat)(directory, path, mode); });
}

KAVRO_WRAPPER int link(const char* from, const char* to) noexcept {
    return made(callBetween("link", AT_FDCWD, from, AT_FDCWD, to),
                [&] { return KAVRO_REAL(link)(from, to); });
}

KAVRO_WRAPPER int linkat(int fromDirectory, const char* from, int toDirectory, const char* to,
                         int flags) noexcept {
    return made(callBetween("link", fromDirectory, from, toDirectory, to),
                [&] { return KAVRO_REAL(linkat)(fromDirectory, from, toDirectory, to, flags); });
}

KAVRO_WRAPPER int symlink(const char* content, const char* path) noexcept {
    return made(callAt("symlink", AT_FDCWD, path), [&] { return KAVRO_REAL(symlink)(content, path); });
}

KAVRO_WRAPPER int symlinkat(const char* content, int directory, const char* path) noexcept {
    return made(callAt("symlink", directory, path),
                [&] { return KAVRO_REAL(symlinkat)(content, directory, path); });
}
