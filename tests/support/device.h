// Helpers for tests that run inside a device twin: files, version files, and what a process has open.
//
// The functions that touch the device's directories work at the fixed paths, so they are for a twin only.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iosfwd>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "upgrade/upgrade_version_ctrl.h"

// Version records in checks and in their messages.
inline bool operator==(const L_VERSION_T& left, const L_VERSION_T& right) {
    return left.hw == right.hw && left.mpu == right.mpu && left.mcu == right.mcu && left.bld == right.bld;
}
void PrintTo(const L_VERSION_T& version, std::ostream* out);

namespace testsupport {

L_VERSION_T versionOf(int hw, int mpu, int mcu, int bld);

// Whether this process runs in a twin. On a host the device's paths are those of the host itself.
bool inTwin();

// The base of the cases that work at the device's fixed paths; outside a twin they fail before they do
// anything.
class DeviceTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(inTwin()) << "run this case through ctest, on a device of its own"; }
};

inline bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

// Empty when it cannot be read, as that of a thread which ends meanwhile.
inline std::string readFile(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Makes the directories in front, too.
inline void writeFile(const std::string& path, const std::string& text) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) {
        std::filesystem::create_directories(parent);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    ASSERT_TRUE(file.good()) << "cannot write " << path;
}

// A file of that size without occupying storage.
inline void writeSparse(const std::string& path, unsigned long size) {
    writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(size)), 0) << path;
}

// The last bytes of a file, without reading the rest.
inline std::string readTail(const std::string& path, unsigned long bytes) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(-static_cast<std::streamoff>(bytes), std::ios::end);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline long sizeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::string& directory);

// The content of a version file.
std::string versionJson(const L_VERSION_T& version);
inline void writeVersions(const std::string& path, const L_VERSION_T& version) {
    writeFile(path, versionJson(version));
}
// The four members of a version file, read without the library; a member that is missing or no integer fails
// the test and counts as kNoVersion.
constexpr int kNoVersion = -77777777;
L_VERSION_T readVersions(const std::string& path);

// Removes what is in /config, /firmware, /raw and /tmp, and the factory package; /etc/kavro keeps the rest.
// Fails outside a twin.
void emptyDevice();

// The open descriptors of this process, without the one that counts them.
unsigned long descriptorCount();
// What the descriptors point to, for the message of a failed count.
std::vector<std::string> descriptorTargets();
// The names of the threads of this process, sorted. Start and join any thread before you count them for the
// first time: with the first one ThreadSanitizer starts a thread of its own.
std::vector<std::string> threadNames();
inline unsigned long threadCount() {
    return threadNames().size();
}
// Waits until there are so many threads: those that ended are gone from /proc a moment after they were
// joined.
bool waitForThreadCount(unsigned long count, int timeoutMs = 5000);

// A process of the PID namespace (in a twin: of the twin).
struct ProcessInfo {
    int pid = 0;
    int parent = 0;
    char state = '?';  // 'Z' for one that ended and was not waited for
    std::string name;
};
std::vector<ProcessInfo> processes();
// Direct children of this process, ended ones included.
std::vector<ProcessInfo> children();
// All processes that were not there when the test began: `const auto before = processPids(); ...
// newProcesses(before)`.
std::vector<int> processPids();
std::vector<ProcessInfo> newProcesses(const std::vector<int>& before);
void PrintTo(const ProcessInfo& process, std::ostream* out);

}  // namespace testsupport
