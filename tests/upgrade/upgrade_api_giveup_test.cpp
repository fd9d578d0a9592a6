// A run is given up at every kind of moment before flashing: it ends with -1, leaves nothing behind, and the
// next run in the same process succeeds.
//
// The moments are spread over shards that run side by side, each with a device of its own. A shard takes one of its
// moments, or all of them in the whole extent.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/extent.h"
#include "tests/upgrade/upgrade_run_support.h"

namespace {

using runtest::Recorder;

constexpr unsigned long kRootFsBytes = 24UL << 20;
constexpr const char* kSlowMark = "/tmp/slow";
constexpr const char* kNextPackage = "/tmp/next.pkg";

constexpr int kGivenUp = 1;
constexpr int kTooLate = 2;

// A command that has helpers of its own in the background, one of them the child of another, that does not
// listen to polite signals, and that goes on when the shell that started it is gone. Only while the run is to
// be given up: otherwise it is the real one.
std::string slowCommand(const std::string& program, const std::string& before, const std::string& after) {
    return "[ -e " + std::string(kSlowMark) + " ] || exec " + program +
           " \"$@\"\n"
           "trap '' TERM HUP INT\n"
           "sleep 300 & one=$!\n"
           "sh -c 'sleep 300 & echo $! >\"$0\"; wait' /tmp/helper.$$ & two=$!\n"
           "until [ -s /tmp/helper.$$ ]; do sleep 0.01; done\n"
           "sleep " +
           before + "\n" + program + " \"$@\"; result=$?\nsleep " + after +
           "\n"
           "kill -0 $PPID || exec sleep 300\n"
           "kill -KILL $one $two $(cat /tmp/helper.$$)\n"
           "wait\n"
           "exit $result\n";
}

void slowDownCommands() {
    runtest::shadowCommand("tar", slowCommand("/usr/bin/tar", "0.10", "0.05"));
    runtest::shadowCommand("openssl", slowCommand("/usr/bin/openssl", "0.02", "0.02"));
}

enum class How {
    kInsideLog,      // from inside the log call of the anchor
    kInsidePublish,  // from inside the publication that follows the anchor on the same thread
    kAfter,          // from another thread, so long after the anchor
};

// When to give up. The anchor is a line of the log; "republish N" stands for the Nth message of the thread
// that only republishes.
struct Moment {
    std::string anchor;
    How how = How::kAfter;
    int delayUs = 0;
};

std::ostream& operator<<(std::ostream& out, const Moment& moment) {
    static constexpr const char* kHow[] = {"inside the log call ", "inside the publication after ", ""};
    out << kHow[static_cast<int>(moment.how)] << '"' << moment.anchor << '"';
    return moment.how == How::kAfter ? out << " + " << moment.delayUs << " us" : out;
}

std::string published(const std::string& stage, const std::string& state) {
    std::string line = runtest::publishedLine(stage, state);
    line.pop_back();
    return line;
}

std::vector<std::string> publications() {
    return {published("INIT", "NONE"),
            published("INIT", "START"),
            published("INIT", "INPROGRESS_MPU"),
            published("START", "INPROGRESS_MPU"),
            published("PROC_PKG_DONE", "INPROGRESS_MPU"),
            published("VERIFY_PKG_DONE", "INPROGRESS_MPU"),
            published("SET_FLAG_DONE", "INPROGRESS_MPU")};
}

std::vector<std::string> otherLines() {
    return {"UpgradeProc::onUpgradeBegin",
            "cp /tmp/package.pkg -> /firmware/upgrade.pkg succ",
            "read_info_form_pkg",
            "truncate_upgrade_pkg",
            "chkFileMd5",
            "unpack_upgrade_package",
            "UPGRADE_proc_upgrade_pkg: get version 1.105.8.3",
            "trying [upgrade]: hw[1->1], mpu[104->105], mcu[7->8], bld[2->3];",
            "upgrade flag mpu[1], mcu[1], bld[1];"};
}

void addDelayed(std::vector<Moment>& moments, const std::string& anchor, int count, int stepUs) {
    for (int i = 0; i < count; ++i) {
        moments.push_back({anchor, How::kAfter, i * stepUs});
    }
}

std::vector<Moment> allMoments() {
    std::vector<Moment> moments;
    for (const std::string& line : publications()) {
        moments.push_back({line, How::kInsideLog, 0});
        moments.push_back({line, How::kInsidePublish, 0});
    }
    for (const std::string& line : otherLines()) {
        moments.push_back({line, How::kInsideLog, 0});
    }
    for (const char* anchor : {"republish 1", "republish 2", "republish 3", "republish 4"}) {
        moments.push_back({anchor, How::kInsidePublish, 0});
    }
    addDelayed(moments, published("INIT", "NONE"), 10, 1500);                      // the work area is made
    addDelayed(moments, "republish 1", 34, 3000);                                  // the package is copied
    addDelayed(moments, published("INIT", "START"), 8, 30000);                     // the pause after it
    addDelayed(moments, "read_info_form_pkg", 10, 150);                            // the key file is written
    addDelayed(moments, "truncate_upgrade_pkg", 10, 500);                          // the storage is flushed
    addDelayed(moments, "chkFileMd5", 30, 1500);                                   // the digest is taken
    addDelayed(moments, "unpack_upgrade_package", 32, 7000);                       // tar and its helpers run
    addDelayed(moments, published("PROC_PKG_DONE", "INPROGRESS_MPU"), 40, 10000);  // openssl, seven times
    addDelayed(moments, published("VERIFY_PKG_DONE", "INPROGRESS_MPU"), 4, 50);
    addDelayed(moments, published("SET_FLAG_DONE", "INPROGRESS_MPU"), 16, 8000);  // the last pause
    return moments;
}

// Watches a run and gives it up at the moment.
class GiverUp {
  public:
    explicit GiverUp(const Moment& givenMoment)
        : moment(givenMoment),
          recorder([this](const Recorder::Event& event) { look(event); }),
          waiter([this] { giveUpLater(); }) {}
    ~GiverUp() {
        wakeWaiter(over);
        waiter.join();
    }
    GiverUp(const GiverUp&) = delete;
    GiverUp& operator=(const GiverUp&) = delete;

    // The stage just before the request; -1 when the moment has not come.
    int stageThen() const { return stage; }
    const Recorder& records() const { return recorder; }

  private:
    void giveUp() {
        stage = UPGRADE_get_stage();
        UPGRADE_set_giveup_upgrade_flag();
    }

    void look(const Recorder::Event& event) {
        if (!isMoment(event)) {
            return;
        }
        if (moment.how == How::kAfter) {
            wakeWaiter(anchored);
            return;
        }
        giveUp();
        // The request is acted upon every millisecond: it meets the thread while it is still in here.
        usleep(20000);
    }

    bool isMoment(const Recorder::Event& event) {
        if (anchored || stage >= 0) {
            return false;
        }
        if (moment.anchor.rfind("republish ", 0) == 0) {
            return event.isMessage && isRepublisher(event.thread) &&
                   ++republished == std::stoi(moment.anchor.substr(10));
        }
        if (moment.how != How::kInsidePublish) {
            return !event.isMessage && event.text == moment.anchor;
        }
        if (!event.isMessage && event.text == moment.anchor) {
            publisher = event.thread;
            return false;
        }
        return event.isMessage && event.thread == publisher;
    }

    // It is the first thread that publishes without having logged.
    bool isRepublisher(pid_t thread) {
        if (republisher == 0) {
            for (const Recorder::Event& event : recorder.all()) {
                if (event.thread == thread && !event.isMessage) {
                    return false;
                }
            }
            republisher = thread;
        }
        return republisher == thread;
    }

    void wakeWaiter(std::atomic<bool>& reason) {
        const std::lock_guard<std::mutex> lock(mutex);
        reason = true;
        woken.notify_one();
    }

    void giveUpLater() {
        {
            std::unique_lock<std::mutex> lock(mutex);
            woken.wait(lock, [this] { return anchored || over; });
        }
        if (anchored) {
            usleep(static_cast<useconds_t>(moment.delayUs));
            giveUp();
        }
    }

    const Moment moment;
    std::atomic<bool> anchored{false};
    std::atomic<bool> over{false};
    std::atomic<int> stage{-1};
    std::atomic<pid_t> publisher{0};
    std::atomic<pid_t> republisher{0};
    std::atomic<int> republished{0};
    std::mutex mutex;
    std::condition_variable woken;
    Recorder recorder;
    std::thread waiter;
};

// Everything a thread that may be cancelled does in these services must be held off from it.
void expectHeldOff(const Recorder& records) {
    const pid_t worker = records.worker();
    for (const Recorder::Event& event : records.all()) {
        if (!event.isMessage || event.thread == worker) {
            EXPECT_FALSE(event.cancelEnabled) << event.text;
        }
    }
}

void expectNothingHalfDone() {
    for (const std::string& name : testsupport::namesIn("/firmware")) {
        EXPECT_TRUE(name == "upgrade.pkg" || name == "rollback.pkg") << name;
    }
    for (const std::string& name : testsupport::namesIn("/config")) {
        EXPECT_TRUE(name == "upgraded" || name == "upgrade_last_runtime") << name;
    }
    EXPECT_EQ(testsupport::readFile(runtest::kLastRuntime), "upgrade_failure");
}

class GiveUp : public runtest::UpgradeRun, public testing::WithParamInterface<unsigned long> {
  protected:
    void SetUp() override {
        UpgradeRun::SetUp();
        runtest::writePackage(runtest::kInputPackage, runtest::kNewer, kRootFsBytes);
        runtest::writePackage(kNextPackage);
        slowDownCommands();
    }

    // False when the request came too late, which a busy machine can bring about.
    bool giveUpOnce(const Moment& moment) {
        testsupport::writeFile(kSlowMark, "");
        int result = 0;
        int stage = 0;
        {
            const GiverUp giver(moment);
            result = UPGRADE_main_proc_fun(runtest::kInputPackage);
            stage = giver.stageThen();
            expectHeldOff(giver.records());
        }
        unlink(kSlowMark);
        EXPECT_GE(stage, UPGRADE_STAGE_IDLE) << "the moment never came";
        const int status = UPGRADE_get_giveup_sts();
        if (status == kTooLate) {
            EXPECT_EQ(result, 0);
            return false;
        }
        EXPECT_LE(stage, UPGRADE_STAGE_SET_FLAG_DONE);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(status, kGivenUp);
        runtest::expectFieldsReset(proc());
        expectNothingHalfDone();
        return true;
    }

    void giveUpAt(const Moment& moment) {
        constexpr int kTries = 5;
        const runtest::ProcessState before;
        bool inTime = false;
        for (int i = 0; i < kTries && !inTime; ++i) {
            inTime = giveUpOnce(moment);
            before.expectUnchanged();
        }
        EXPECT_TRUE(inTime) << "always too late";
        EXPECT_EQ(UPGRADE_main_proc_fun(kNextPackage), 0) << fake::log();
        before.expectUnchanged();
    }
};

constexpr unsigned long kShards = 48;

std::vector<Moment> momentsOfShard(unsigned long shard) {
    const std::vector<Moment> all = allMoments();
    std::vector<Moment> moments;
    for (unsigned long i = shard; i < all.size(); i += kShards) {
        moments.push_back(all[i]);
    }
    return testsupport::isWholeExtent() ? moments
                                        : std::vector{moments[testsupport::drawn(shard, moments.size())]};
}

TEST_P(GiveUp, before_flashing_ends_the_run_cleanly_and_the_next_one_succeeds) {
    ASSERT_GE(allMoments().size(), 200U);
    for (const Moment& moment : momentsOfShard(GetParam())) {
        if (HasFailure()) {
            break;
        }
        std::ostringstream name;
        name << moment;
        SCOPED_TRACE("given up " + name.str());
        fake::log().clear();
        fake::node().clear();
        fake::calls().clear();
        giveUpAt(moment);
    }
}

INSTANTIATE_TEST_SUITE_P(Moments, GiveUp, testing::Range(0UL, kShards));

// A command that hangs does not keep the run: neither the first of them nor the last.
class GiveUpHanging : public runtest::UpgradeRun, public testing::WithParamInterface<const char*> {};

TEST_P(GiveUpHanging, command_ends_it_with_the_run) {
    constexpr double kHangsMs = 250000;
    const std::string program = GetParam();
    runtest::writePackage(runtest::kInputPackage);
    runtest::shadowCommand(program, "touch /tmp/hangs\n(sleep 300; :) &\nsleep 300\nexit 0\n");
    const runtest::ProcessState before;
    const double begin = runtest::nowMs();
    std::thread giver([] {
        while (!testsupport::exists("/tmp/hangs")) {
            usleep(1000);
        }
        UPGRADE_set_giveup_upgrade_flag();
    });
    EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), -1);
    giver.join();
    EXPECT_LT(runtest::nowMs() - begin, kHangsMs);
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kGivenUp);
    before.expectUnchanged();
}

// The directory is emptied by a command, after a copy that failed.
class GiveUpCleaning : public runtest::UpgradeRun {};

TEST_F(GiveUpCleaning, after_a_failed_copy_ends_the_command_with_the_run) {
    runtest::writePackage(runtest::kInputPackage);
    testsupport::writeFile(UpgradeProc::upgradePkg + "/inside", "a directory in its place");
    runtest::shadowCommand("rm", "case \"$*\" in */firmware/*) sleep 300;; *) exec /bin/rm \"$@\";; esac\n");
    const runtest::ProcessState before;
    {
        const Recorder recorder([](const Recorder::Event& event) {
            if (event.text.find("-> /firmware/upgrade.pkg fail") != std::string::npos) {
                UPGRADE_set_giveup_upgrade_flag();
            }
        });
        EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), -1);
    }
    EXPECT_EQ(UPGRADE_get_giveup_sts(), kGivenUp);
    before.expectUnchanged();
    std::filesystem::remove_all(UpgradeProc::upgradePkg);
    EXPECT_EQ(UPGRADE_main_proc_fun(runtest::kInputPackage), 0) << fake::log();
}

INSTANTIATE_TEST_SUITE_P(Commands, GiveUpHanging, testing::Values("tar", "openssl"),
                         [](const auto& command) { return std::string(command.param); });

}  // namespace
