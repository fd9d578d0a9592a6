// Flash drivers that fail, hang, or answer when nobody waits for them any more:
//
//   driver_fault --list      the faults, each by its name
//   driver_fault NAME...     a line of JSON for each; exit status 1 when one came out wrong
//
// On a twin, with the real library, commands and files and with drivers that do as they are told. Each fault has a
// process of its own that makes a run with it and what may follow; it must end in order, also with a driver that hangs.
// Then another process, the device after a restart, makes a good run and activates it.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/fault/soak_device.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/program.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

namespace {

using soak::Problems;
using soak::require;

constexpr const char* kLastRuntime = "/config/upgrade_last_runtime";
constexpr const char* kVersions = "/config/upgrade_config.json";
constexpr const char* kPackage = "/tmp/package.pkg";
constexpr const char* kProblem = "PROBLEM ";
constexpr int kUnfinished = -1;  // the version of a processor that is being flashed

// ---------------------------------------------------------------------------------------------------------------------
// Faults
// ---------------------------------------------------------------------------------------------------------------------

enum class Step { kMpuPre, kMpuUpgrade, kMpuPost, kMcuPre, kLinkOn, kMcuUpgrade, kMcuPost, kLinkOff };
struct StepRow {
    Step step;
    const char* name;
};
constexpr StepRow kSteps[] = {
    {Step::kMpuPre, "mpu.preUpgrade"},   {Step::kMpuUpgrade, "mpu.upgrade"},
    {Step::kMpuPost, "mpu.postUpgrade"}, {Step::kMcuPre, "mcu.preUpgrade"},
    {Step::kLinkOn, "link.on"},          {Step::kMcuUpgrade, "mcu.upgrade"},
    {Step::kMcuPost, "mcu.postUpgrade"}, {Step::kLinkOff, "link.off"},
};
constexpr std::size_t kMpuSteps = 3;

enum class Way { kFails, kSlow, kLateGood, kLateBad, kHangs };
struct WayRow {
    Way way;
    const char* name;
    unsigned seconds;
    int result;
};
// The wait for both processors is 361 s.
constexpr unsigned kForEver = 1000000;
constexpr WayRow kWays[] = {
    {Way::kFails, "fails", 0, -1},       {Way::kSlow, "slow", 200, 0},
    {Way::kLateGood, "late", 500, 0},    {Way::kLateBad, "late-failure", 500, -1},
    {Way::kHangs, "hangs", kForEver, 0},
};

// What the same process does next.
enum class Then {
    kAgain,         // another run when nothing of this one goes on any more; nothing, while something hangs
    kOverlapGood,   // another run at once
    kOverlapFails,  // another run at once, in which the main processor's driver fails
};
constexpr const char* kThenNames[] = {"again", "overlapped", "overlapped-by-failure"};

enum class Mode { kSideBySide, kOneByOne };

struct Fault {
    StepRow step;
    WayRow way;
};

struct Case {
    Mode mode = Mode::kSideBySide;
    std::vector<Fault> faults;
    Then then = Then::kAgain;

    std::string name() const {
        std::string text = mode == Mode::kSideBySide ? "side" : "single";
        const char* separator = ":";
        for (const Fault& fault : faults) {
            text += std::string(separator) + fault.step.name + "=" + fault.way.name;
            separator = "+";
        }
        return text + ":" + kThenNames[static_cast<int>(then)];
    }
    bool has(std::function<bool(const Fault&)> condition) const {
        return std::any_of(faults.begin(), faults.end(), condition);
    }
    bool isLate() const {
        return has([](const Fault& fault) { return fault.way.seconds >= 500; });
    }
    bool hangs() const {
        return has([](const Fault& fault) { return fault.way.way == Way::kHangs; });
    }
    // Nobody asks whether the link was switched off.
    bool fails() const {
        return has(
            [](const Fault& fault) { return fault.way.result < 0 && fault.step.step != Step::kLinkOff; });
    }
    bool timesOut() const { return mode == Mode::kSideBySide && isLate(); }
};

// The other ways add nothing to those of the other processor.
bool isForTwo(const WayRow& way) {
    return way.way == Way::kFails || way.way == Way::kLateGood || way.way == Way::kHangs;
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (const StepRow& step : kSteps) {
        for (const WayRow& way : kWays) {
            cases.push_back({Mode::kSideBySide, {{step, way}}, Then::kAgain});
            // One after the other there is no limit: who hangs hangs the run.
            if (way.way != Way::kHangs) {
                cases.push_back({Mode::kOneByOne, {{step, way}}, Then::kAgain});
            }
            if (way.seconds >= 500) {
                cases.push_back({Mode::kSideBySide, {{step, way}}, Then::kOverlapGood});
                cases.push_back({Mode::kSideBySide, {{step, way}}, Then::kOverlapFails});
            }
        }
    }
    for (std::size_t mpu = 0; mpu < kMpuSteps; ++mpu) {
        for (std::size_t mcu = kMpuSteps; mcu < std::size(kSteps); ++mcu) {
            for (const WayRow& first : kWays) {
                for (const WayRow& second : kWays) {
                    if (isForTwo(first) && isForTwo(second)) {
                        cases.push_back(
                            {Mode::kSideBySide, {{kSteps[mpu], first}, {kSteps[mcu], second}}, Then::kAgain});
                    }
                }
            }
        }
    }
    return cases;
}

// ---------------------------------------------------------------------------------------------------------------------
// The drivers
// ---------------------------------------------------------------------------------------------------------------------

int behave(const WayRow& way) {
    sleep(way.seconds);
    return way.result;
}

void set(const Fault& fault) {
    const WayRow way = fault.way;
    const auto does = [way] { return behave(way); };
    const auto doesFor = [way](bool on, bool wanted) { return on == wanted ? behave(way) : 0; };
    switch (fault.step.step) {
        case Step::kMpuPre:
            fake::mpu().preUpgrade.runs([does](const std::string&, bool, bool) { return does(); });
            break;
        case Step::kMpuUpgrade:
            fake::mpu().upgrade.runs(does);
            break;
        case Step::kMpuPost:
            fake::mpu().postUpgrade.runs(does);
            break;
        case Step::kMcuPre:
            fake::mcu().preUpgrade.runs([does](const std::string&, bool, bool) { return does(); });
            break;
        case Step::kLinkOn:
            fake::spi().runs([doesFor](bool on) { return doesFor(on, true); });
            break;
        case Step::kMcuUpgrade:
            fake::mcu().upgrade.runs(does);
            break;
        case Step::kMcuPost:
            fake::mcu().postUpgrade.runs(does);
            break;
        case Step::kLinkOff:
            fake::spi().runs([doesFor](bool on) { return doesFor(on, false); });
            break;
    }
}

void healDrivers() {
    fake::mpu().preUpgrade.returns(0);
    fake::mpu().upgrade.returns(0);
    fake::mpu().postUpgrade.returns(0);
    fake::mcu().preUpgrade.returns(0);
    fake::mcu().upgrade.returns(0);
    fake::mcu().postUpgrade.returns(0);
    fake::spi().returns(0);
}

bool jobsAreOver() {
    const std::vector<std::string> names = testsupport::threadNames();
    return std::count(names.begin(), names.end(), "aUpgrade_MPU") +
               std::count(names.begin(), names.end(), "aUpgrade_MCU") ==
           0;
}

// ---------------------------------------------------------------------------------------------------------------------
// The first process: a run with the fault, and what follows
// ---------------------------------------------------------------------------------------------------------------------

void requireFailed(Problems& problems, const std::string& when, int result) {
    require(problems, result == -1, when + ": the result is " + std::to_string(result) + ", not -1");
    require(problems, soak::readText(kLastRuntime) == "upgrade_failure",
            when + ": the failure is not remembered");
    require(problems, !UPGRADE_isUpgraded(), when + ": something awaits activation");
    require(problems, !soak::exists("/firmware/rollback.pkg"), when + ": a package was kept");
    require(problems, UPGRADE_get_stage() == UPGRADE_STAGE_IDLE, when + ": the stage is not IDLE");
}

void requireSucceeded(Problems& problems, const std::string& when, int result) {
    require(problems, result == 0, when + ": the result is " + std::to_string(result) + ", not 0");
    require(problems, soak::readText(kLastRuntime) == "upgrade_success",
            when + ": the success is not remembered");
    require(problems, UPGRADE_isUpgraded(), when + ": nothing awaits activation");
    require(problems, soak::exists("/firmware/rollback.pkg"), when + ": the package was not kept");
}

// A microcontroller whose programming began and did not end is recorded as such.
void requireRecord(Problems& problems, const Case& tried) {
    const bool isHalf = tried.has([](const Fault& fault) {
        return (fault.step.step == Step::kMcuUpgrade || fault.step.step == Step::kMcuPost) &&
               fault.way.way != Way::kSlow;
    });
    if (!isHalf || !(tried.fails() || tried.timesOut()) ||
        (tried.mode == Mode::kOneByOne && !tried.fails())) {
        return;
    }
    require(problems, testsupport::readVersions(kVersions).mcu == kUnfinished,
            "a microcontroller that is half programmed is recorded as version " +
                std::to_string(testsupport::readVersions(kVersions).mcu));
}

int flash() {
    return UPGRADE_main_proc_fun(kPackage);
}

void followAgain(Problems& problems, const Case& tried) {
    if (tried.hangs()) {
        return;
    }
    while (!jobsAreOver()) {
        usleep(100000);
    }
    if (tried.timesOut()) {
        requireFailed(problems, "when the late driver was done", -1);
    }
    healDrivers();
    requireSucceeded(problems, "the run after it", flash());
    require(problems, UPGRADE_activate() == 0, "the run after it is not activated");
}

// What the program should not do. The new run waits for the old one's drivers, and must not take their results for its
// own.
void followOverlapped(Problems& problems, const Case& tried) {
    healDrivers();
    const bool fails = tried.then == Then::kOverlapFails;
    if (fails) {
        fake::mpu().upgrade.returns(-1);
    }
    const int result = flash();
    if (fails || tried.hangs()) {
        requireFailed(problems, "the overlapping run", result);
    } else {
        requireSucceeded(problems, "the overlapping run", result);
    }
}

int makeFirst(const Case& tried) {
    UpgradeProc& proc = *UpgradeProc::getInstance();
    proc.flashModeFlag = tried.mode == Mode::kSideBySide;
    for (const Fault& fault : tried.faults) {
        set(fault);
    }
    Problems problems;
    const int result = flash();
    if (tried.fails() || tried.timesOut()) {
        requireFailed(problems, "the run", result);
    } else {
        requireSucceeded(problems, "the run", result);
    }
    requireRecord(problems, tried);
    require(problems, tried.timesOut() == fake::log().contains("UPGRADE_mpu_mcu_async timeout;"),
            "the log and the time-out do not agree");
    if (!tried.timesOut()) {
        require(problems, fake::calls().count("spi(true)") == fake::calls().count("spi(false)"),
                "the link stays on");
    }
    if (tried.then == Then::kAgain) {
        followAgain(problems, tried);
    } else {
        followOverlapped(problems, tried);
    }
    for (const std::string& problem : problems) {
        std::printf("%s%s\n", kProblem, problem.c_str());
    }
    return 0;
}

// The device after a restart.
int makeRestarted() {
    Problems problems;
    std::string directory;
    require(problems, UPGRADE_init(directory) == 0, "after a restart: the library does not start");
    requireSucceeded(problems, "after a restart", flash());
    require(problems, UPGRADE_activate() == 0, "after a restart: the run is not activated");
    for (const std::string& problem : problems) {
        std::printf("%s%s\n", kProblem, problem.c_str());
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------------
// One case
// ---------------------------------------------------------------------------------------------------------------------

void runProcess(Problems& problems, const std::vector<std::string>& words) {
    constexpr const char* kLimit = "300";  // s of real time
    std::vector<std::string> all = {"timeout", "-k", "5", kLimit, "/proc/self/exe"};
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self));
    all.back() = std::string(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    all.insert(all.end(), words.begin(), words.end());
    const testsupport::ProgramResult result = testsupport::runProgram(all);
    require(problems, result.exitCode == 0,
            words[0] + " ended with status " + std::to_string(result.exitCode) + ": " +
                result.err.substr(0, 2000));
    std::istringstream output(result.out);
    const std::string mark = kProblem;
    for (std::string line; std::getline(output, line);) {
        if (line.compare(0, mark.size(), mark) == 0) {
            problems.push_back(line.substr(mark.size()));
        }
    }
}

Problems tryCase(const std::string& name) {
    Problems problems;
    testsupport::emptyDevice();
    testsupport::TestPackage package;
    package.setVersions(1, 105, 8, 3);
    package.writeTo(kPackage);
    runProcess(problems, {"--first", name});
    runProcess(problems, {"--restarted"});
    return problems;
}

}  // namespace

int main(int count, char** words) {
    const std::vector<std::string> arguments(words + 1, words + count);
    const std::vector<Case> cases = allCases();
    if (arguments.empty()) {
        std::fprintf(stderr, "usage: driver_fault --list | NAME...\n");
        return 2;
    }
    if (arguments[0] == "--list") {
        for (const Case& one : cases) {
            std::printf("%s\n", one.name().c_str());
        }
        return 0;
    }
    if (!testsupport::inTwin()) {
        std::fprintf(stderr, "driver_fault runs on a twin only\n");
        return 2;
    }
    if (arguments[0] == "--restarted") {
        return makeRestarted();
    }
    if (arguments[0] == "--first") {
        const auto found = std::find_if(cases.begin(), cases.end(),
                                        [&](const Case& one) { return one.name() == arguments.at(1); });
        return found == cases.end() ? 2 : makeFirst(*found);
    }
    soak::keepStandardOutput();
    int failed = 0;
    for (const std::string& name : arguments) {
        const Problems problems = tryCase(name);
        soak::report("driver_fault", name, "as it should be", problems);
        failed = failed != 0 || !problems.empty() ? 1 : 0;
    }
    return failed;
}
