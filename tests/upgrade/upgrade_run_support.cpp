#include "tests/upgrade/upgrade_run_support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>

namespace runtest {
namespace {

constexpr const char* kShadowDirectory = "/tmp/bin";
constexpr int kPatienceMs = 5000;

std::string withoutLineBreak(std::string text) {
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

std::string described(const Recorder::Event& event) {
    return event.isMessage ? event.text : std::to_string(event.level) + " " + event.text;
}

// What a killed process leaves in the process table is its new parent's to clear away.
bool waitForNoNewProcess(const std::vector<int>& before) {
    constexpr int kStepMs = 5;
    for (int waited = 0; waited < kPatienceMs; waited += kStepMs) {
        if (testsupport::newProcesses(before).empty()) {
            return true;
        }
        usleep(kStepMs * 1000);
    }
    return testsupport::newProcesses(before).empty();
}

}  // namespace

std::string publishedLine(const std::string& stage, const std::string& state) {
    return "&&&&& upgrade [stage " + stage + "], [result " + state + "] &&&&&\n";
}

std::string removedLine(const std::string& path, int code) {
    return "remove " + path + " [" + COMMON_YR::getCommonErrCode(code) + "]!\n";
}

std::string copiedLine(const std::string& from, const std::string& to) {
    return "cp " + from + " -> " + to + " succ\n";
}

std::string noise(unsigned long bytes, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::string text(bytes, '\0');
    for (unsigned long i = 0; i + sizeof(std::uint64_t) <= bytes; i += sizeof(std::uint64_t)) {
        const std::uint64_t word = generator();
        std::copy_n(reinterpret_cast<const char*>(&word), sizeof word, text.begin() + static_cast<long>(i));
    }
    return text;
}

testsupport::TestPackage packageOf(const L_VERSION_T& version, unsigned long rootFsBytes) {
    testsupport::TestPackage package;
    package.setVersions(version.hw, version.mpu, version.mcu, version.bld);
    package.setComponent("ext4", noise(rootFsBytes));
    return package;
}

void writePackage(const std::string& path, const L_VERSION_T& version, unsigned long rootFsBytes) {
    packageOf(version, rootFsBytes).writeTo(path);
}

void shadowCommand(const std::string& name, const std::string& script) {
    const std::string path = std::string(kShadowDirectory) + "/" + name;
    testsupport::writeFile(path, "#!/bin/sh\n" + script);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    const std::string searched = getenv("PATH");
    if (searched.find(kShadowDirectory) == std::string::npos) {
        setenv("PATH", (std::string(kShadowDirectory) + ":" + searched).c_str(), 1);
    }
}

void UpgradeRun::SetUp() {
    testsupport::emptyDevice();
    testsupport::writeVersions(kFactoryVersions, kInstalled);
    fake::reset();
    proc();
    fake::log().clear();
    fake::node().clear();
    fake::calls().clear();
}

Recorder::Recorder(Observer eventObserver) : observer(std::move(eventObserver)) {
    fake::log().onLine([this](const fake::LogLine& line) {
        add({gettid(), false, line.level, withoutLineBreak(line.text), line.cancelEnabled, line.order});
    });
    fake::node().onPublish([this](const fake::Message& message) {
        constexpr unsigned kStateWord = 3;
        add({gettid(), true, 0, "publish " + std::to_string(message.word(kStateWord)), message.cancelEnabled,
             message.order});
    });
}

Recorder::~Recorder() {
    fake::log().onLine({});
    fake::node().onPublish({});
}

void Recorder::add(Event event) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
    }
    if (observer) {
        observer(event);
    }
}

std::vector<Recorder::Event> Recorder::all() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return events;
}

std::vector<std::string> Recorder::ofThread(pid_t thread) const {
    std::vector<std::string> texts;
    for (const Event& event : all()) {
        if (event.thread == thread) {
            texts.push_back(described(event));
        }
    }
    return texts;
}

std::vector<std::string> Recorder::messagesOfThread(pid_t thread) const {
    std::vector<std::string> texts;
    for (const Event& event : all()) {
        if (event.thread == thread && event.isMessage) {
            texts.push_back(event.text);
        }
    }
    return texts;
}

pid_t Recorder::worker() const {
    for (const Event& event : all()) {
        if (event.text.find(" -> " + UpgradeProc::upgradePkg) != std::string::npos) {
            return event.thread;
        }
    }
    return 0;
}

pid_t Recorder::republisher() const {
    const std::vector<Event> recorded = all();
    for (const Event& candidate : recorded) {
        const bool logs = std::any_of(recorded.begin(), recorded.end(), [&](const Event& event) {
            return event.thread == candidate.thread && !event.isMessage;
        });
        if (!logs) {
            return candidate.thread;
        }
    }
    return 0;
}

ProcessState::ProcessState()
    : pids(testsupport::processPids()),
      descriptors(testsupport::descriptorTargets()),
      threads(testsupport::threadCount()) {}

void ProcessState::expectUnchanged() const {
    EXPECT_TRUE(waitForNoNewProcess(pids))
        << "still there: " << testing::PrintToString(testsupport::newProcesses(pids));
    EXPECT_TRUE(testsupport::waitForThreadCount(threads))
        << "threads: " << testing::PrintToString(testsupport::threadNames());
    EXPECT_EQ(testsupport::descriptorTargets(), descriptors);
}

void expectFieldsReset(const UpgradeProc& proc) {
    EXPECT_EQ(proc.reservedWord, 0U);
    EXPECT_FALSE(proc.running);
    EXPECT_FALSE(proc.giveup);
    EXPECT_EQ(proc.stage, UPGRADE_STAGE_IDLE);
    EXPECT_EQ(proc.state, UPGRADE_STATE_NONE);
    EXPECT_EQ(proc.workPkg, "");
    EXPECT_FALSE(proc.isRollback);
    EXPECT_FALSE(proc.upgradeFlag.bld || proc.upgradeFlag.mpu || proc.upgradeFlag.mcu);
    for (const L_VERSION_T& version : {proc.targetVersion, proc.currentVersion}) {
        EXPECT_TRUE(version.hw == 0 && version.mpu == 0 && version.mcu == 0 && version.bld == 0);
    }
    for (int stage = UPGRADE_STAGE_INIT; stage < UpgradeProc::kStageCount; ++stage) {
        EXPECT_EQ(proc.stageTick[stage], 0.0) << "stage " << stage;
    }
    EXPECT_EQ(proc.activateResult, -1);
    EXPECT_FALSE(proc.activated);
}

double nowMs() {
    const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::milli>(sinceStart).count();
}

}  // namespace runtest
