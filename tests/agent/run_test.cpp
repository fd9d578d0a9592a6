// Runs made through the agent's public headers, by a process that has nothing else.
#include "agent/run.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/activation.h"
#include "agent/device_log.h"
#include "agent/history.h"
#include "agent/lock.h"
#include "agent/state.h"
#include "tests/agent/held_device.h"
#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/test_package.h"
#include "tests/tools/tool_support.h"

namespace {

using namespace kavro::agent;
using kavro::ErrorCode;
using kavro::Result;
using testsupport::exists;
using testsupport::readFile;
using testsupport::TestPackage;

constexpr const char* kPackage = "/tmp/release.pkg";
constexpr const char* kMarker = "/config/upgraded";

// Keeps what it is told, and may ask to give the run up.
class Witness : public RunObserver {
  public:
    void begin(const RunBegin& run) override {
        calls.emplace_back("begin");
        begun = run;
    }
    void show(const RunStatus& status) override {
        if (calls.back() != "show") {
            calls.emplace_back("show");
        }
        shown.push_back(status);
        if (status.stage == giveUpIn) {
            giveUps = std::max(giveUps.load(), 1);
        }
    }
    void notice(const std::string& text, double) override { notices.push_back(text); }
    void end(const RunRecord& record) override {
        calls.emplace_back("end");
        last = record;
    }

    RunOptions options() {
        RunOptions wanted;
        wanted.giveUps = [this] { return giveUps.load(); };
        return wanted;
    }

    std::vector<std::string> calls;
    std::vector<std::string> notices;
    std::vector<RunStatus> shown;
    RunBegin begun;
    RunRecord last;
    int giveUpIn = -1;
    std::atomic<int> giveUps{0};
};

class Run : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_TRUE(mcu.start());
    }

    static TestPackage release() { return TestPackage().setVersions(1, 105, 8, 3); }
    static std::vector<HistoryEntry> history() { return readHistory().value(); }

    testsupport::McuEmulator mcu;
    Witness witness;
};

std::vector<int> stagesOf(const RunRecord& record) {
    std::vector<int> stages;
    for (const StageChange& change : record.stages) {
        stages.push_back(change.stage);
    }
    return stages;
}

TEST_F(Run, that_succeeds_is_told_from_its_begin_to_its_end_and_noted) {
    release().writeTo(kPackage);
    const Result<RunRecord> run = install(kPackage, {}, &witness);
    ASSERT_TRUE(run.ok()) << run.error().text;
    EXPECT_TRUE(exists(kMarker));
    EXPECT_EQ(witness.calls, (std::vector<std::string>{"begin", "show", "end"}));
    EXPECT_EQ(witness.begun.packageVersion, "V01.105.008.003");
    EXPECT_EQ(witness.begun.currentVersion, "V01.104.007.002");
    EXPECT_EQ(stagesOf(run.value()), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(run.value().outcome, "installed '/tmp/release.pkg', it awaits activation");
    EXPECT_FALSE(run.value().error);
    EXPECT_FALSE(run.value().log.empty());
    EXPECT_EQ(run.value().historyFault, "");
    ASSERT_EQ(history().size(), 1U);
    EXPECT_EQ(history()[0].event, "install");
    EXPECT_EQ(history()[0].outcome, "ok");
    EXPECT_EQ(history()[0].release, "V01.105.008.003");
}

TEST_F(Run, needs_no_observer) {
    release().writeTo(kPackage);
    EXPECT_TRUE(install(kPackage).ok());
    EXPECT_TRUE(activate().ok());
    TestPackage().setVersions(1, 106, 9, 3).writeTo(kPackage);
    EXPECT_TRUE(install(kPackage).ok());
    EXPECT_TRUE(activate().ok());
    const Result<RunRecord> back = rollback();
    ASSERT_TRUE(back.ok()) << back.error().text;
    EXPECT_EQ(back.value().outcome, "rolled back to V01.105.008.003, which runs after the next restart");
    EXPECT_EQ(stagesOf(back.value()).back(), UPGRADE_STAGE_DONE);
    EXPECT_EQ(history().back().event, "rollback");
}

TEST_F(Run, that_is_refused_has_an_end_only) {
    release().corruptSignature("ext4").writeTo(kPackage);
    const Result<RunRecord> run = install(kPackage, {}, &witness);
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().code, ErrorCode::kRefused);
    EXPECT_EQ(witness.calls, std::vector<std::string>{"end"});
    ASSERT_TRUE(witness.last.error);
    EXPECT_EQ(witness.last.outcome, run.error().text);
    EXPECT_TRUE(witness.last.stages.empty());
    EXPECT_TRUE(history().empty());
}

TEST_F(Run, that_fails_tells_the_devices_own_words) {
    constexpr std::size_t kMoreThanThePartition = 2 << 20;
    release().setComponent("cv22_kavro_qz7.dtb", std::string(kMoreThanThePartition, 'd')).writeTo(kPackage);
    const Result<RunRecord> run = install(kPackage, {}, &witness);
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().code, ErrorCode::kFlashFailed);
    ASSERT_FALSE(run.error().details.empty());
    EXPECT_NE(run.error().details.front().find("too large for"), std::string::npos);
    EXPECT_EQ(run.error().details, loggedErrors());
    EXPECT_EQ(history().back().outcome, "flash_failed");
    EXPECT_EQ(stagesOf(witness.last).back(), UPGRADE_STAGE_FLASHING_START);
}

TEST_F(Run, is_given_up_on_request_while_it_does_not_flash) {
    release().writeTo(kPackage);
    witness.giveUpIn = UPGRADE_STAGE_INIT;
    const Result<RunRecord> run = install(kPackage, witness.options(), &witness);
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().code, ErrorCode::kGivenUp);
    EXPECT_EQ(witness.notices, std::vector<std::string>{"giving up..."});
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(history().back().outcome, "given_up");
    EXPECT_TRUE(install(kPackage).ok()) << "the run after it";
}

TEST_F(Run, goes_on_when_it_is_asked_too_late) {
    release().writeTo(kPackage);
    witness.giveUpIn = UPGRADE_STAGE_FLASHING_START;
    EXPECT_TRUE(install(kPackage, witness.options(), &witness).ok());
    ASSERT_EQ(witness.notices.size(), 2U);
    EXPECT_NE(witness.notices[1].find("too late to give up"), std::string::npos);
}

TEST_F(Run, asked_to_be_given_up_before_it_begins_does_not_begin) {
    release().writeTo(kPackage);
    witness.giveUps = 1;
    const Result<RunRecord> run = install(kPackage, witness.options(), &witness);
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().code, ErrorCode::kGivenUp);
    EXPECT_EQ(witness.calls, std::vector<std::string>{"end"});
    EXPECT_EQ(UPGRADE_get_stage(), UPGRADE_STAGE_IDLE);
}

TEST_F(Run, waits_for_another_operation_as_long_as_it_has_patience) {
    release().writeTo(kPackage);
    {
        const agent_test::HeldDevice other;
        const Result<RunRecord> run = install(kPackage, {}, &witness);
        ASSERT_FALSE(run.ok());
        EXPECT_EQ(run.error().code, ErrorCode::kBusy);
        RunOptions patient = witness.options();
        patient.patience.longest = std::chrono::minutes(1);
        patient.patience.keepWaiting = [this] { return ++witness.giveUps > 0; };
        EXPECT_EQ(install(kPackage, patient).error().code, ErrorCode::kGivenUp);
    }
    const agent_test::HeldDevice brief(std::chrono::seconds(1));
    RunOptions patient;
    patient.patience.longest = std::chrono::minutes(1);
    EXPECT_TRUE(install(kPackage, patient).ok());
}

TEST_F(Run, holds_the_device_until_its_end_is_told) {
    class Asker : public RunObserver {
      public:
        void show(const RunStatus&) override { refused = refused && isBusy(); }
        void end(const RunRecord&) override { refused = refused && isBusy(); }
        static bool isBusy() {
            const Result<DeviceLock> lock = DeviceLock::take({});
            return !lock.ok() && lock.error().code == ErrorCode::kBusy;
        }
        bool refused = true;
    };
    release().writeTo(kPackage);
    Asker asker;
    EXPECT_TRUE(install(kPackage, {}, &asker).ok());
    EXPECT_TRUE(asker.refused);
    EXPECT_FALSE(Asker::isBusy());
}

TEST_F(Run, is_not_disturbed_by_a_second_one_of_the_same_process) {
    class Second : public RunObserver {
      public:
        void show(const RunStatus& status) override {
            if (status.stage == UPGRADE_STAGE_FLASHING_START && !refused) {
                refused = install(kPackage).error().code == ErrorCode::kBusy;
            }
        }
        bool refused = false;
    };
    release().writeTo(kPackage);
    Second second;
    const Result<RunRecord> run = install(kPackage, {}, &second);
    ASSERT_TRUE(run.ok()) << run.error().text;
    EXPECT_TRUE(second.refused);
    EXPECT_EQ(stagesOf(run.value()), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_LT(run.value().log.front().seconds, run.value().stages.front().seconds);
}

TEST_F(Run, without_platform_json_is_refused_for_the_drivers) {
    release().writeTo(kPackage);
    std::filesystem::remove("/etc/kavro/platform.json");
    const Result<RunRecord> run = install(kPackage);
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().text, "the flash drivers are not ready");
    EXPECT_EQ(run.error().details.size(), 2U);
}

// The most that was shown before a stage.
int progressBefore(const std::vector<RunStatus>& shown, int stage) {
    int most = 0;
    for (const RunStatus& status : shown) {
        most = status.stage < stage ? status.progress : most;
    }
    return most;
}

TEST_F(Run, tells_its_progress_by_what_was_written) {
    release().writeTo(kPackage);
    ASSERT_TRUE(install(kPackage, {}, &witness).ok());
    EXPECT_TRUE(
        std::is_sorted(witness.shown.begin(), witness.shown.end(),
                       [](const RunStatus& a, const RunStatus& b) { return a.progress < b.progress; }));
    for (const RunStatus& status : witness.shown) {
        EXPECT_EQ(status.progress == 100, status.stage == UPGRADE_STAGE_DONE) << status.stage;
    }
    // By the time alone it would be 2 and 32: the copy takes 10 s on a slow device, the flashing 180.
    EXPECT_GE(progressBefore(witness.shown, UPGRADE_STAGE_START), 7);
    EXPECT_GE(progressBefore(witness.shown, UPGRADE_STAGE_BACKUP_PACKAGE), 90);
}

TEST_F(Run, is_estimated_by_what_the_last_ones_took) {
    release().writeTo(kPackage);
    ASSERT_TRUE(install(kPackage, {}, &witness).ok());
    ASSERT_TRUE(witness.shown.front().remaining);
    EXPECT_GT(*witness.shown.front().remaining, 200);
    const std::vector<double> taken = history().back().stageSeconds;
    ASSERT_EQ(taken.size(), 9U);
    EXPECT_EQ(taken[UPGRADE_STAGE_IDLE], 0);
    EXPECT_GT(taken[UPGRADE_STAGE_FLASHING_START], 0.5);
    Witness second;
    ASSERT_TRUE(install(kPackage, {}, &second).ok());
    ASSERT_TRUE(second.shown.front().remaining);
    EXPECT_LT(*second.shown.front().remaining, 100);
    EXPECT_GT(*second.shown.front().remaining, 1);
}

class RunOfAnotherProcess : public Run {
  protected:
    std::optional<RunInProgress> startedUpTo(const char* stage) {
        release().writeTo(kPackage);
        other.emplace(std::vector<std::string>{UPGRADECTL, "install", kPackage});
        EXPECT_TRUE(other->waitForOutput(stage));
        return readState().run;
    }

    std::optional<testsupport::Program> other;
};

TEST_F(RunOfAnotherProcess, tells_stage_state_and_percent_until_its_end) {
    const std::optional<RunInProgress> run = startedUpTo("stage FLASHING_START");
    ASSERT_TRUE(run);
    EXPECT_EQ(run->pid, other->pid());
    EXPECT_EQ(run->stage, "FLASHING_START");
    EXPECT_EQ(run->state.rfind("INPROGRESS_", 0), 0U) << run->state;
    ASSERT_TRUE(run->percent);
    EXPECT_GE(*run->percent, 30);
    EXPECT_LT(*run->percent, 100);
    const testsupport::ProgramResult status = tool_test::upgradectl({"status", "--json"});
    EXPECT_NE(status.out.find("\"percent\" : "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("\"stage\" : \"FLASHING_START\""), std::string::npos) << status.out;
    EXPECT_EQ(other->wait().exitCode, 0);
    EXPECT_FALSE(readState().run);
    EXPECT_FALSE(exists("/run/kavro/run.json"));
}

TEST_F(RunOfAnotherProcess, that_was_killed_tells_nothing_of_the_next_holder) {
    ASSERT_TRUE(startedUpTo("stage INIT"));
    kill(other->pid(), SIGKILL);
    other->wait();
    ASSERT_TRUE(exists("/run/kavro/run.json"));
    const agent_test::HeldDevice holder;
    const std::optional<RunInProgress> run = readState().run;
    ASSERT_TRUE(run);
    EXPECT_EQ(run->pid, holder.pid());
    EXPECT_EQ(run->stage, "");
    EXPECT_EQ(run->state, "");
    EXPECT_FALSE(run->percent);
}

TEST_F(RunOfAnotherProcess, is_told_to_everybody_whatever_the_processes_mask_is) {
    const mode_t mask = umask(077);
    EXPECT_TRUE(startedUpTo("stage START"));
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat("/run/kavro/run.json", &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
}

TEST(RunPlaces, have_the_devices_log_where_it_is_known) {
    const auto has = [](const RunPlaces& places) {
        return std::find(places.files.begin(), places.files.end(), "/tmp/kavro.log") != places.files.end();
    };
    EXPECT_TRUE(has(placesOfRuns()));
    testsupport::writeFile("/etc/kavro/platform.json", "{}");
    EXPECT_EQ(deviceLogFile(), "");
    EXPECT_FALSE(has(placesOfRuns()));
}

}  // namespace
