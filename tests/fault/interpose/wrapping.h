// What all wrappers are made of: how they call what they hide, how they describe a call, and how they answer for it.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tests/fault/interpose/interpose.h"

#define KAVRO_WRAPPER extern "C" __attribute__((visibility("default")))

#define KAVRO_REAL(name)                                           \
    [] {                                                           \
        static auto* const function = fault::real(&(name), #name); \
        return function;                                           \
    }()

namespace fault {

// The C library's function, which the wrapper of that name hides.
template <typename Function>
Function* real(Function* /*ofThisType*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

inline void copyPath(char (&to)[kPathBytes], const char* from) {
    std::snprintf(to, sizeof(to), "%s", from);
}

// What /proc says of this process's link, or "".
inline void readLink(const char* link, char (&to)[kPathBytes]) {
    const long length = syscall(SYS_readlinkat, AT_FDCWD, link, to, sizeof(to) - 1);
    to[length > 0 ? length : 0] = '\0';
}

inline void pathOf(int fd, char (&to)[kPathBytes]) {
    char link[32];
    std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    readLink(link, to);
}

inline void pathAt(int directory, const char* path, char (&to)[kPathBytes]) {
    if (path == nullptr || path[0] == '/') {
        copyPath(to, path == nullptr ? "" : path);
        return;
    }
    char base[kPathBytes];
    if (directory == AT_FDCWD) {
        readLink("/proc/self/cwd", base);
    } else {
        pathOf(directory, base);
    }
    while (std::strncmp(path, "./", 2) == 0) {
        path += 2;
    }
    const std::size_t length = std::min(std::strlen(base), sizeof(to) - 2);
    std::memcpy(to, base, length);
    to[length] = '/';
    std::snprintf(to + length + 1, sizeof(to) - length - 1, "%s", path);
}

inline Call callOn(const char* name) {
    Call call;
    std::snprintf(call.name, sizeof(call.name), "%s", name);
    return call;
}

inline Call callAt(const char* name, int directory, const char* path) {
    Call call = callOn(name);
    pathAt(directory, path, call.path);
    return call;
}

inline Call callOf(const char* name, int fd, std::int64_t bytes = -1) {
    Call call = callOn(name);
    pathOf(fd, call.path);
    call.bytes = bytes;
    return call;
}

inline Call callBetween(const char* name, int fromDirectory, const char* from, int toDirectory,
                        const char* to) {
    Call call = callAt(name, toDirectory, to);
    pathAt(fromDirectory, from, call.from);
    return call;
}

// A call that gives 0 or -1, or a descriptor or -1: then it cannot be swallowed.
template <typename Make>
int made(const Call& call, Make make) {
    const Verdict verdict = decide(call);
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    return verdict.swallowed ? 0 : make();
}

// A call that changes nothing, and gives 0 or -1, or a descriptor or -1.
template <typename Make>
int looked(const Call& call, Make make) {
    const Verdict verdict = failVerdict(call);
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    return make();
}

// A call that gives the number of bytes written, or -1. `make` is told how many they may be.
template <typename Make>
ssize_t written(const Call& call, Make make) {
    const Verdict verdict = decide(call);
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    if (verdict.swallowed) {
        return call.bytes;
    }
    return make(
        static_cast<std::size_t>(verdict.atMost >= 0 ? std::min(verdict.atMost, call.bytes) : call.bytes));
}

}  // namespace fault
