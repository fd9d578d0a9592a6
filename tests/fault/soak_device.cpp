#include "tests/fault/soak_device.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "tests/support/device.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

// Of the sanitizers, which have an allocator of their own.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace soak {
namespace {

constexpr const char* kPartitions = "/dev/disk/by-partlabel";
constexpr const char* kMcuFlash = "/dev/kavro-mcu/flash.bin";
constexpr const char* kRunningSlotFile = "/run/kavro/running_slot";
constexpr const char* kLastRuntimeName = "upgrade_last_runtime";

FILE* resultStream = nullptr;

// Which files a run may leave, by directory.
const std::map<std::string, std::set<std::string>> kKnownNames = {
    {"/firmware", {"upgrade.pkg", "current.pkg", "rollback.pkg", "recv.tar.xz"}},
    {"/config", {"upgraded", kLastRuntimeName, "upgrade_config.json", "written_slot.json"}},
    {"/raw", {"upgrade"}},
};

std::string stamp(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return "none";
    }
    return std::to_string(status.st_size) + " bytes of " + std::to_string(status.st_mtim.tv_sec) + "." +
           std::to_string(status.st_mtim.tv_nsec);
}

std::map<std::string, std::string> flashStamps() {
    std::map<std::string, std::string> stamps{{kMcuFlash, stamp(kMcuFlash)}};
    for (const std::string& name : testsupport::namesIn(kPartitions)) {
        stamps[std::string(kPartitions) + "/" + name] = stamp(std::string(kPartitions) + "/" + name);
    }
    for (const char* name : {"/firmware/current.pkg", "/firmware/rollback.pkg"}) {
        stamps[name] = stamp(name);
    }
    for (const std::string& name : testsupport::namesIn("/config")) {
        if (name != kLastRuntimeName) {
            stamps["/config/" + name] = readText("/config/" + name);
        }
    }
    return stamps;
}

std::string commandOutput(const char* command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command, "re"), pclose);
    char text[256];
    const std::size_t length = pipe ? fread(text, 1, sizeof(text), pipe.get()) : 0;
    return {text, length};
}

template <typename Condition>
bool comesTrue(int patienceMs, Condition condition) {
    constexpr int kStepMs = 5;
    for (int waited = 0; waited < patienceMs && !condition(); waited += kStepMs) {
        usleep(kStepMs * 1000);
    }
    return condition();
}

double heapBytes() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return static_cast<double>(__sanitizer_get_current_allocated_bytes());
    }
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

double residentBytes() {
    std::istringstream text(readText("/proc/self/statm"));
    double all = 0;
    double resident = 0;
    text >> all >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            safe += '\\';
        }
        safe += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    return safe;
}

}  // namespace

void require(Problems& problems, bool holds, const std::string& otherwise) {
    if (!holds) {
        problems.push_back(otherwise);
    }
}

std::string readText(const std::string& path) {
    return testsupport::readFile(path);
}

bool exists(const std::string& path) {
    return testsupport::exists(path);
}

long sizeOf(const std::string& path) {
    return testsupport::sizeOf(path);
}

// ---------------------------------------------------------------------------------------------------------------------
// The device
// ---------------------------------------------------------------------------------------------------------------------

Package makePackage(const std::string& name, int mpu, int mcu, int bld) {
    constexpr unsigned long kKernelBytes = 300000;
    constexpr unsigned long kRootFsBytes = 3000000;
    const std::string mark = name + std::to_string(mpu);
    Package package;
    package.path = "/tmp/" + name + ".pkg";
    package.mcuVersion = mcu;
    package.components["kernel"] = testsupport::kernelImage(kKernelBytes) + mark;
    package.components["dtb"] = testsupport::deviceTree(4000) + mark;
    package.components["rootfs"] = testsupport::rootFileSystem(kRootFsBytes) + mark;
    testsupport::TestPackage made;
    made.setVersions(1, mpu, mcu, bld);
    made.setComponent("Image", package.components["kernel"]);
    made.setComponent("cv22_kavro_qz7.dtb", package.components["dtb"]);
    made.setComponent("ext4", package.components["rootfs"]);
    made.writeTo(package.path);
    return package;
}

std::string runningSlot() {
    return readText(kRunningSlotFile).substr(0, 1);
}

std::string otherSlot(const std::string& slot) {
    return slot == "a" ? "b" : "a";
}

void requireContent(Problems& problems, const std::string& slot, const Package& package) {
    for (const auto& [part, bytes] : package.components) {
        const std::string path = std::string(kPartitions).append("/").append(part).append("_").append(slot);
        std::ifstream file(path, std::ios::binary);
        std::string found(bytes.size(), '\0');
        file.read(found.data(), static_cast<std::streamsize>(found.size()));
        require(problems, found == bytes, path + " does not hold that of " + package.path);
    }
}

void startAnew(Problems& problems) {
    const std::string slot = commandOutput("fw_printenv -n boot_slot").substr(0, 1);
    require(problems, slot == "a" || slot == "b", "the boot environment names no slot");
    std::ofstream(kRunningSlotFile) << slot << '\n';
    UpgradeProc& proc = *UpgradeProc::getInstance();
    proc.resetRun();
    UpgradeMpu& driver = *proc.mpu;
    require(problems, driver.init() >= 0, "the driver does not come up after the restart");
    require(problems, driver.activate(false) >= 0, "the running slot cannot be confirmed");
}

FlashState::FlashState() : stampOf(flashStamps()) {}

void FlashState::requireUnchanged(Problems& problems) const {
    std::map<std::string, std::string> now = flashStamps();
    for (const auto& [path, before] : stampOf) {
        require(
            problems, now[path] == before,
            std::string(path).append(" was changed: ").append(before).append(" became ").append(now[path]));
    }
    require(problems, now.size() == stampOf.size(), "a file of /config came into being");
}

// ---------------------------------------------------------------------------------------------------------------------
// The process
// ---------------------------------------------------------------------------------------------------------------------

ProcessState::ProcessState()
    : pids(testsupport::processPids()),
      descriptors(testsupport::descriptorTargets()),
      threads(testsupport::threadCount()) {}

void ProcessState::requireUnchanged(Problems& problems, int patienceMs) const {
    if (!comesTrue(patienceMs, [this] { return testsupport::newProcesses(pids).empty(); })) {
        for (const testsupport::ProcessInfo& process : testsupport::newProcesses(pids)) {
            problems.push_back("the process " + process.name + " was left behind");
        }
    }
    require(problems, comesTrue(patienceMs, [this] { return testsupport::threadCount() == threads; }),
            std::to_string(testsupport::threadCount()) + " threads instead of " + std::to_string(threads));
    if (!comesTrue(patienceMs, [this] { return testsupport::descriptorTargets() == descriptors; })) {
        problems.push_back("other descriptors than before:");
        for (const std::string& target : testsupport::descriptorTargets()) {
            problems.back().append(" ").append(target);
        }
    }
}

void requireKnownNames(Problems& problems) {
    for (const auto& [directory, known] : kKnownNames) {
        for (const std::string& name : testsupport::namesIn(directory)) {
            require(problems, known.count(name) != 0,
                    std::string(directory).append("/").append(name).append(" was left behind"));
        }
    }
}

MemoryTrend::MemoryTrend(unsigned long warmUpRuns) : warmUp(warmUpRuns) {
    first.reserve(kMeanOver);
    last.reserve(kMeanOver);
}

void MemoryTrend::sampleAfterRun() {
    ++taken;
    if (taken <= warmUp) {
        return;
    }
    const Sample sample{heapBytes(), residentBytes()};
    if (first.size() < kMeanOver) {
        first.push_back(sample);
        return;
    }
    if (last.size() == kMeanOver) {
        last.erase(last.begin());
    }
    last.push_back(sample);
}

namespace {

template <typename Samples>
auto meanOf(const Samples& samples) {
    typename Samples::value_type mean;
    for (const auto& sample : samples) {
        mean.heap += sample.heap / static_cast<double>(samples.size());
        mean.resident += sample.resident / static_cast<double>(samples.size());
    }
    return mean;
}

}  // namespace

MemoryTrend::Sample MemoryTrend::firstMean() const {
    return meanOf(first);
}

MemoryTrend::Sample MemoryTrend::lastMean() const {
    return meanOf(last);
}

void MemoryTrend::requireFlat(Problems& problems) const {
    constexpr double kKib = 1024;
    const double runs = static_cast<double>(taken - warmUp - kMeanOver);
    require(problems, lastMean().heap - firstMean().heap < runs * kKib / 2, "memory in use grows: " + text());
    // What is resident settles over a hundred runs, page by page; under a sanitizer it never does, for what was freed
    // is kept for a while.
    constexpr double kSettled = 256;
    if (runs < kSettled || __sanitizer_get_current_allocated_bytes != nullptr) {
        return;
    }
    require(problems, lastMean().resident - firstMean().resident < runs * kKib,
            "resident memory grows: " + text());
}

std::string MemoryTrend::text() const {
    constexpr double kKib = 1024;
    char line[160];
    std::snprintf(line, sizeof(line), "heap %.1f -> %.1f KiB, resident %.0f -> %.0f KiB",
                  firstMean().heap / kKib, lastMean().heap / kKib, firstMean().resident / kKib,
                  lastMean().resident / kKib);
    return line;
}

// ---------------------------------------------------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------------------------------------------------

// The library's commands print to standard output: the results go where it led, and it leads to standard error.
void keepStandardOutput() {
    const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    resultStream = fdopen(kept, "w");
}

void report(const std::string& kind, const std::string& id, const std::string& outcome,
            const Problems& problems) {
    std::string text = problems.empty() ? outcome : "failed";
    std::fprintf(resultStream, R"({"kind":"%s","id":"%s","outcome":"%s")", kind.c_str(), id.c_str(),
                 escaped(text).c_str());
    if (!problems.empty()) {
        std::string all = outcome;
        for (const std::string& problem : problems) {
            all += "; " + problem;
        }
        std::fprintf(resultStream, R"(,"why":"%s")", escaped(all).c_str());
    }
    std::fprintf(resultStream, "}\n");
    std::fflush(resultStream);
}

}  // namespace soak
