// Whole runs against a microcontroller with faults: what cannot be survived ends as a failed run that says why,
// leaves the running slot and the boot environment alone and does not keep the next run from succeeding.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/mcu_emulator.h"
#include "tests/tools/device_support.h"

namespace {

using namespace tool_test;
using testsupport::exists;
using testsupport::McuEmulator;
using testsupport::readFile;
using testsupport::TestPackage;

constexpr int kOldVersion = 7;
constexpr int kNewVersion = 8;
constexpr int kUnfinished = -1;
constexpr int kRefused = 3;
constexpr int kFlashingFailed = 4;  // exit code of upgradectl
constexpr std::size_t kApplicationBytes = 20000;

constexpr const char* kDeviceLog = "/tmp/kavro.log";
constexpr const char* kCurrentVersions = "/config/upgrade_config.json";
constexpr const char* kPartitions = "/dev/disk/by-partlabel/";
constexpr const char* kBefore = "/tmp/before/";

// What a run that fails must not touch, with slot a running.
const std::vector<std::string> kUntouched = {"kernel_a", "dtb_a", "rootfs_a", "env_a", "env_b"};

// An application that fills twenty blocks.
std::string newApplication() {
    std::string bytes = std::string("KAVROMCU\x08", 9) + std::string(7, '\0');
    for (std::size_t index = bytes.size(); index < kApplicationBytes; ++index) {
        bytes += static_cast<char>(index * 7 % 251);
    }
    return testsupport::srecords(0x8000, bytes);
}

class McuRun : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        TestPackage()
            .setVersions(1, 105, kNewVersion, 2)
            .setComponent("mcu_flash_app.s19", newApplication())
            .writeTo(kPackage);
        ASSERT_TRUE(mcu.format(kOldVersion));
    }

    // A run with a log of its own.
    static ProgramResult install() {
        std::filesystem::remove(kDeviceLog);
        return upgradectl({"install", kPackage});
    }

    McuEmulator mcu;
};

// --- faults that no run survives -----------------------------------------------------------------

// Of a healthy run: block 1 is the flash driver, blocks 2 to 21 are the application. RoutineControl: 1 link on,
// 2 check of the driver, 3 erasing, 4 check of the application, 5 making it run, 6 link off. RequestDownload: 1
// driver, 2 application. ReadDataByIdentifier: 1 before the run, 2 after the reset.
struct Fatal {
    const char* name;
    const char* fault;
    const char* reason;            // in the log
    int recorded;                  // the version that the device then has on record
    std::optional<int> remaining;  // of the application in the microcontroller
};

void PrintTo(const Fatal& fatal, std::ostream* out) {
    *out << fatal.fault;
}

class FatalFault : public McuRun, public testing::WithParamInterface<Fatal> {
  protected:
    // Gives the running slot a content and keeps a copy of what must not change.
    static void rememberDevice() {
        for (const char* partition : {"kernel_a", "dtb_a", "rootfs_a"}) {
            const int written =
                runProgram({"bash", "-c", "printf 'what runs' | dd conv=notrunc status=none of=\"$0\"",
                            std::string(kPartitions) + partition})
                    .exitCode;
            ASSERT_EQ(written, 0);
        }
        std::filesystem::create_directory(kBefore);
        for (const std::string& name : kUntouched) {
            ASSERT_EQ(runProgram({"cp", "--sparse=always", kPartitions + name, kBefore + name}).exitCode, 0);
        }
    }

    static void expectDeviceUntouched() {
        for (const std::string& name : kUntouched) {
            EXPECT_EQ(runProgram({"cmp", kPartitions + name, kBefore + name}).exitCode, 0) << name;
        }
        EXPECT_FALSE(exists(kMarker));
    }

    // The version on record; that of the factory where no run has recorded another one yet.
    static int versionOnRecord() {
        return exists(kCurrentVersions) ? testsupport::readVersions(kCurrentVersions).mcu : kOldVersion;
    }
};

TEST_P(FatalFault, fails_the_run_and_not_the_next_one) {
    rememberDevice();
    ASSERT_TRUE(mcu.start({GetParam().fault}));
    const ProgramResult failed = install();
    EXPECT_EQ(failed.exitCode, kFlashingFailed) << failed.out << failed.err;
    EXPECT_EQ(readFile(kLastRun), "upgrade_failure");
    EXPECT_TRUE(contains(readFile(kDeviceLog), GetParam().reason)) << readFile(kDeviceLog);
    expectDeviceUntouched();
    EXPECT_TRUE(contains(mcu.log(), "[fault: ")) << mcu.log();
    EXPECT_EQ(versionOnRecord(), GetParam().recorded);
    EXPECT_EQ(mcu.version(), GetParam().remaining) << mcu.log();

    ASSERT_TRUE(mcu.start());
    const ProgramResult next = install();
    EXPECT_EQ(next.exitCode, 0) << next.out << next.err << readFile(kDeviceLog);
    EXPECT_EQ(mcu.version(), kNewVersion) << mcu.log();
    EXPECT_TRUE(exists(kMarker));
}

TEST_F(McuRun, of_a_dead_one_is_refused_before_anything_is_touched) {
    ASSERT_TRUE(mcu.start({"drop=1.."}));
    const ProgramResult refused = install();
    EXPECT_EQ(refused.exitCode, kRefused) << refused.out << refused.err;
    EXPECT_TRUE(contains(refused.err, "the microcontroller does not answer")) << refused.err;
    EXPECT_FALSE(exists(kLastRun));
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(mcu.version(), kOldVersion) << mcu.log();
}

constexpr std::nullopt_t kNone = std::nullopt;

const std::vector<Fatal> kFatal = {
    {"dies_before_the_flashing", "drop=7..",
     "UpgradeMcu: unix:/dev/kavro-mcu/link: looking for the microcontroller: TesterPresent: no answer",
     kOldVersion, kOldVersion},
    {"link_refused", "refuse@31=1:22",
     "velSpiDevCtrl: unix:/dev/kavro-mcu/link: switching the programming link on: RoutineControl: "
     "conditionsNotCorrect (0x22)",
     kOldVersion, kOldVersion},
    {"session_dropped", "drop@10=1..",
     "entering the programming session: DiagnosticSessionControl: no answer", kUnfinished, kOldVersion},
    {"blocks_dropped", "drop@36=3..", "loading the application: TransferData: no answer", kUnfinished, kNone},
    {"answers_lost", "lose@36=3..", "loading the application: TransferData: no answer", kUnfinished, kNone},
    {"answers_damaged", "damage@36=3..", "loading the application: TransferData: no answer", kUnfinished,
     kNone},
    {"answers_late", "delay@36=3..:3000", "loading the application: TransferData: no answer", kUnfinished,
     kNone},
    {"busy", "busy@36=3..", "loading the application: TransferData: busyRepeatRequest (0x21)", kUnfinished,
     kNone},
    {"pending_for_ever", "pending@31=3:100",
     "erasing the application: RoutineControl: the answer is still pending", kUnfinished, kNone},
    {"erase_refused", "refuse@31=3:72",
     "erasing the application: RoutineControl: generalProgrammingFailure (0x72)", kUnfinished, kOldVersion},
    {"download_refused", "refuse@34=2:70",
     "loading the application: RequestDownload: uploadDownloadNotAccepted (0x70)", kUnfinished, kNone},
    {"block_refused", "refuse@36=3:72",
     "loading the application: TransferData: generalProgrammingFailure (0x72)", kUnfinished, kNone},
    {"exit_refused", "refuse@37=2:24",
     "loading the application: RequestTransferExit: requestSequenceError (0x24)", kUnfinished, kNone},
    {"check_refused", "refuse@31=4:22",
     "checking the application: RoutineControl: conditionsNotCorrect (0x22)", kUnfinished, kNone},
    {"making_run_refused", "refuse@31=5:72",
     "making the application the one to run: RoutineControl: generalProgrammingFailure (0x72)", kUnfinished,
     kNone},
    {"reset_refused", "refuse@11=1:22", "starting the application: ECUReset: conditionsNotCorrect (0x22)",
     kUnfinished, kNewVersion},
    {"version_unanswered", "drop@22=2..", "reading the version: ReadDataByIdentifier: no answer", kUnfinished,
     kNewVersion},
    {"power_lost_at_the_first_block", "power-loss=1",
     "loading the flash driver: TransferData: the microcontroller has closed the connection", kUnfinished,
     kOldVersion},
    {"power_lost_in_the_middle", "power-loss=11",
     "loading the application: TransferData: the microcontroller has closed the connection", kUnfinished,
     kNone},
    {"power_lost_at_the_last_block", "power-loss=21",
     "loading the application: TransferData: the microcontroller has closed the connection", kUnfinished,
     kNone},
    {"driver_corrupted", "corrupt=1",
     "checking the flash driver: the microcontroller's memory does not hold what was sent", kUnfinished,
     kOldVersion},
    {"application_corrupted", "corrupt=11",
     "checking the application: the microcontroller's memory does not hold what was sent", kUnfinished,
     kNone},
};

INSTANTIATE_TEST_SUITE_P(Each, FatalFault, testing::ValuesIn(kFatal),
                         [](const auto& fatal) { return std::string(fatal.param.name); });

// --- faults that a run survives ------------------------------------------------------------------

struct Passing {
    const char* name;
    std::vector<std::string> faults;
    const char* notice;  // in the log
};

void PrintTo(const Passing& passing, std::ostream* out) {
    *out << passing.name;
}

class PassingFault : public McuRun, public testing::WithParamInterface<Passing> {};

TEST_P(PassingFault, is_survived_and_logged) {
    ASSERT_TRUE(mcu.start(GetParam().faults));
    const ProgramResult result = install();
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_TRUE(contains(readFile(kDeviceLog), GetParam().notice)) << readFile(kDeviceLog);
    EXPECT_TRUE(contains(mcu.log(), "[fault: ")) << mcu.log();
    EXPECT_EQ(mcu.version(), kNewVersion) << mcu.log();
}

const std::vector<Passing> kPassing = {
    {"dropped_block", {"drop@36=4"}, "mcu: TransferData: no answer"},
    {"lost_answer_to_a_block", {"lose@36=4"}, "mcu: TransferData: no answer"},
    {"lost_answer_to_the_erasing", {"lose@31=3"}, "mcu: RoutineControl: no answer"},
    {"lost_answer_to_the_reset", {"lose@11=1"}, "mcu: ECUReset: no answer"},
    {"damaged_answer", {"damage@36=4"}, "mcu: TransferData: no answer"},
    {"busy_twice", {"busy@36=4..5"}, "mcu: TransferData: busyRepeatRequest (0x21)"},
    {"pending_three_times", {"pending@31=3:3"}, "mcu: RoutineControl: response pending"},
    {"delay_below_the_timeout", {"delay@36=4:200"}, "UPGRADE_Mcu start"},
    {"delay_beyond_one_timeout", {"delay@36=4:700"}, "mcu: TransferData: no answer"},
    {"every_service_once",
     {"lose@10=1", "damage@34=2", "drop@36=9", "lose@37=2", "busy@31=4", "pending@31=6:1", "drop@22=2"},
     "mcu: DiagnosticSessionControl: no answer"},
};

INSTANTIATE_TEST_SUITE_P(Each, PassingFault, testing::ValuesIn(kPassing),
                         [](const auto& passing) { return std::string(passing.param.name); });

}  // namespace
