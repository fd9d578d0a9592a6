#include "tests/support/device.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <sstream>

#include <json/json.h>

void PrintTo(const L_VERSION_T& version, std::ostream* out) {
    *out << version.hw << '.' << version.mpu << '.' << version.mcu << '.' << version.bld;
}

namespace testsupport {
namespace {

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

void emptyDirectory(const std::string& directory) {
    std::error_code ignored;
    for (const std::string& name : namesIn(directory)) {
        std::filesystem::remove_all(std::filesystem::path(directory) / name, ignored);
    }
}

// One line of /proc/PID/stat: "PID (NAME) STATE PARENT ...". The name may hold blanks and brackets.
bool parseStat(const std::string& text, ProcessInfo& process) {
    const unsigned long open = text.find('(');
    const unsigned long close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
        return false;
    }
    process.name = text.substr(open + 1, close - open - 1);
    std::istringstream rest(text.substr(close + 1));
    return static_cast<bool>(rest >> process.state >> process.parent);
}

int versionMember(const Json::Value& root, const char* key, const std::string& path) {
    if (!root.isObject() || !root[key].isInt()) {
        ADD_FAILURE() << path << " has no integer " << key << ":\n" << readFile(path);
        return kNoVersion;
    }
    return root[key].asInt();
}

}  // namespace

L_VERSION_T versionOf(int hw, int mpu, int mcu, int bld) {
    L_VERSION_T version{};
    version.hw = hw;
    version.mpu = mpu;
    version.mcu = mcu;
    version.bld = bld;
    return version;
}

bool inTwin() {
    return readFile("/proc/1/comm") == "bwrap\n" && exists("/run/kavro/running_slot");
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string versionJson(const L_VERSION_T& version) {
    std::ostringstream text;
    text << "{\n   \"bld_version\" : " << version.bld << ",\n   \"hw_version\" : " << version.hw
         << ",\n   \"mcu_version\" : " << version.mcu << ",\n   \"mpu_version\" : " << version.mpu << "\n}\n";
    return text.str();
}

L_VERSION_T readVersions(const std::string& path) {
    Json::Value root;
    std::istringstream text(readFile(path));
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &root, &errors)) {
        ADD_FAILURE() << path << ": " << errors;
    }
    return versionOf(versionMember(root, "hw_version", path), versionMember(root, "mpu_version", path),
                     versionMember(root, "mcu_version", path), versionMember(root, "bld_version", path));
}

void emptyDevice() {
    ASSERT_TRUE(inTwin());
    for (const char* directory : {"/config", "/firmware", "/raw", "/tmp"}) {
        emptyDirectory(directory);
    }
    std::error_code ignored;
    std::filesystem::remove("/etc/kavro/origin.pkg.tar.gz", ignored);
    std::filesystem::remove("/etc/kavro/origin_pkg_md5sum.txt", ignored);
}

std::vector<std::string> descriptorTargets() {
    std::vector<std::string> targets;
    for (const std::string& name : namesIn("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink("/proc/self/fd/" + name, gone);
        if (!gone) {  // the descriptor of the listing itself is gone by now
            targets.push_back(std::string(name).append(" -> ").append(target));
        }
    }
    return targets;
}

unsigned long descriptorCount() {
    return descriptorTargets().size();
}

std::vector<std::string> threadNames() {
    std::vector<std::string> names;
    for (const std::string& id : namesIn("/proc/self/task")) {
        std::string name = readFile("/proc/self/task/" + id + "/comm");
        if (!name.empty()) {
            name.pop_back();
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool waitForThreadCount(unsigned long count, int timeoutMs) {
    constexpr int kStepMs = 5;
    for (int waited = 0; waited < timeoutMs && threadCount() != count; waited += kStepMs) {
        usleep(kStepMs * 1000);
    }
    return threadCount() == count;
}

std::vector<ProcessInfo> processes() {
    std::vector<ProcessInfo> all;
    for (const std::string& name : namesIn("/proc")) {
        ProcessInfo process;
        if (isNumber(name) && parseStat(readFile("/proc/" + name + "/stat"), process)) {
            process.pid = std::stoi(name);
            all.push_back(process);
        }
    }
    return all;
}

std::vector<ProcessInfo> children() {
    std::vector<ProcessInfo> found = processes();
    const int self = getpid();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [self](const ProcessInfo& process) { return process.parent != self; }),
                found.end());
    return found;
}

std::vector<int> processPids() {
    std::vector<int> pids;
    for (const ProcessInfo& process : processes()) {
        pids.push_back(process.pid);
    }
    return pids;
}

std::vector<ProcessInfo> newProcesses(const std::vector<int>& before) {
    std::vector<ProcessInfo> found = processes();
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const ProcessInfo& process) {
                                   return std::count(before.begin(), before.end(), process.pid) != 0;
                               }),
                found.end());
    return found;
}

void PrintTo(const ProcessInfo& process, std::ostream* out) {
    *out << process.pid << " (" << process.name << ") " << process.state << ", child of " << process.parent;
}

}  // namespace testsupport
