#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <vector>

#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"
#include "tests/tools/powered_device.h"

namespace {

using namespace tool_test;
using testsupport::exists;
using testsupport::readFile;
using testsupport::sizeOf;
using testsupport::TestPackage;
using testsupport::writeFile;

void expectFailure(const ProgramResult& result, int exitCode, const std::string& part) {
    EXPECT_EQ(result.exitCode, exitCode) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, part)) << result.err;
    EXPECT_TRUE(contains(result.err, "\n  next: ")) << result.err;
}

class Install : public PoweredDevice {};

TEST_F(Install, a_packed_release_is_installed_activated_and_rolled_back) {
    packRelease();
    const ProgramResult first = upgradectl({"install", kPackage});
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_TRUE(contains(first.out, "stage DONE, state FINISH")) << first.out;
    EXPECT_TRUE(exists(kMarker));
    EXPECT_EQ(readFile("/dev/disk/by-partlabel/kernel_b").rfind(readFile("/tmp/components/Image"), 0), 0U);

    const ProgramResult activated = upgradectl({"activate"});
    EXPECT_EQ(activated.exitCode, 0) << activated.err;
    EXPECT_FALSE(exists(kMarker));
    EXPECT_EQ(sizeOf("/firmware/current.pkg"), 134217728);

    // A second release makes the first one the package to roll back to; its microcontroller differs.
    TestPackage().setVersions(1, 106, 9, 3).writeTo("/tmp/second.pkg");
    EXPECT_EQ(upgradectl({"install", "/tmp/second.pkg"}).exitCode, 0);
    EXPECT_EQ(upgradectl({"activate"}).exitCode, 0);
    const ProgramResult back = upgradectl({"rollback"});
    EXPECT_EQ(back.exitCode, 0) << back.err;
    EXPECT_TRUE(contains(back.out, "stage FLASHING_START")) << back.out;
    EXPECT_TRUE(contains(back.out, "rolled back to V01.105.008.003, which runs after the next restart"))
        << back.out;
    EXPECT_EQ(readFile(kLastRun), "rollback_success");
}

// The events of one kind, by their member of the same name.
std::vector<std::string> eventNames(const std::vector<Json::Value>& events, const std::string& kind) {
    std::vector<std::string> names;
    for (const Json::Value& event : events) {
        if (event["event"] == kind) {
            names.push_back(event[kind].asString());
        }
    }
    return names;
}

void makePublicKey(const char* path) {
    const ProgramResult result =
        runProgram({"openssl", "pkey", "-in", "/tmp/key.pem", "-pubout", "-out", path});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(Install, tells_a_program_every_change_once_and_in_order_and_writes_a_report) {
    packRelease();
    makePublicKey("/tmp/public.pem");
    const ProgramResult result = upgradectl(
        {"install", "--json", "--trusted-key", "/tmp/public.pem", "--report", "/tmp/report.html", kPackage});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::vector<Json::Value> events = eventsIn(result.out);  // nothing else, as from tar or openssl
    ASSERT_GT(events.size(), 10U);
    EXPECT_EQ(events.front()["event"], "begin");
    EXPECT_EQ(events.front()["package_version"], "V01.105.008.003");
    EXPECT_EQ(events.front()["current_version"], "V01.104.007.002");
    EXPECT_EQ(eventNames(events, "stage"),
              (std::vector<std::string>{"INIT", "START", "PROC_PKG_DONE", "VERIFY_PKG_DONE", "SET_FLAG_DONE",
                                        "FLASHING_START", "BACKUP_PACKAGE", "DONE"}));
    EXPECT_EQ(eventNames(events, "state"),
              (std::vector<std::string>{"NONE", "START", "INPROGRESS_MPU", "INPROGRESS_MCU", "FINISH"}));
    EXPECT_EQ(events.back()["event"], "end");
    EXPECT_EQ(events.back()["result"], "done");
    EXPECT_TRUE(std::is_sorted(events.begin(), events.end(), [](const Json::Value& a, const Json::Value& b) {
        return a["seconds"].asDouble() < b["seconds"].asDouble();
    })) << result.out;

    const std::string report = readFile("/tmp/report.html");
    for (const char* part : {"FLASHING_START", "aUpgrade_MCU", "mcu_flash_app.s19", "awaits activation"}) {
        EXPECT_TRUE(contains(report, part)) << part;
    }
}

TEST_F(Install, on_a_terminal_one_line_is_drawn_again_and_again) {
    packRelease();
    const ProgramResult result =
        runProgram({"script", "-qec", std::string(UPGRADECTL) + " install " + kPackage, "/dev/null"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, "\r\x1b[K[")) << result.out;
    EXPECT_TRUE(contains(result.out, "100 %  DONE")) << result.out;
    EXPECT_TRUE(contains(result.out, "0:00 left")) << result.out;
    EXPECT_FALSE(contains(result.out, "stage DONE")) << result.out;
}

TEST_F(Install, a_package_is_found_by_a_relative_path_with_blanks_and_quotes) {
    packRelease();
    std::filesystem::create_directory("/tmp/my 'files' $(x)");
    std::filesystem::rename(kPackage, "/tmp/my 'files' $(x)/re lease.pkg");
    std::filesystem::current_path("/tmp/my 'files' $(x)");
    const ProgramResult result = upgradectl({"install", "re lease.pkg"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

class GiveUpSignal : public Install, public testing::WithParamInterface<int> {};

TEST_P(GiveUpSignal, before_flashing_ends_with_exit_code_5_and_nothing_flashed) {
    packRelease();
    const std::string before = readFile(mcu.flashFile());
    Program install({UPGRADECTL, "install", kPackage});
    ASSERT_TRUE(install.waitForOutput("stage INIT"));
    kill(install.pid(), GetParam());
    const ProgramResult result = install.wait();
    expectFailure(result, 5, "was given up, nothing was flashed");
    EXPECT_FALSE(contains(result.out, "too late")) << result.out;
    EXPECT_FALSE(exists(kMarker));
    EXPECT_TRUE(before == readFile(mcu.flashFile()));
    EXPECT_EQ(readFile(kLastRun), "upgrade_failure");
}

TEST_P(GiveUpSignal, during_flashing_changes_nothing_however_often_it_comes) {
    packRelease();
    Program install({UPGRADECTL, "install", kPackage});
    ASSERT_TRUE(install.waitForOutput("stage FLASHING_START"));
    kill(install.pid(), GetParam());
    ASSERT_TRUE(install.waitForOutput("too late to give up"));
    kill(install.pid(), GetParam());
    const ProgramResult result = install.wait();
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_TRUE(exists(kMarker));
}

INSTANTIATE_TEST_SUITE_P(Install, GiveUpSignal, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_F(Install, the_run_after_a_given_up_one_succeeds) {
    packRelease();
    Program first({UPGRADECTL, "install", kPackage});
    ASSERT_TRUE(first.waitForOutput("stage INIT"));
    kill(first.pid(), SIGINT);
    EXPECT_EQ(first.wait().exitCode, 5);
    EXPECT_EQ(upgradectl({"install", kPackage}).exitCode, 0);
}

TEST_F(Install, a_reader_that_goes_away_does_not_end_the_run) {
    packRelease();
    const ProgramResult result =
        runProgram({"bash", "-c", "set -o pipefail; \"$@\" | true", "bash", UPGRADECTL, "install", kPackage});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(exists(kMarker));
}

TEST_F(Install, closed_standard_output_does_not_end_the_run) {
    packRelease();
    const ProgramResult result =
        runProgram({"bash", "-c", "\"$@\" >&-", "bash", UPGRADECTL, "install", kPackage});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(exists(kMarker));
}

TEST_F(Install, another_key_than_the_trusted_one_is_refused_before_a_run_begins_and_reported) {
    packRelease();
    makeEcKey("/tmp/key.pem");
    makePublicKey("/tmp/other.pem");
    const ProgramResult result = upgradectl(
        {"install", "--json", "--trusted-key", "/tmp/other.pem", "--report", "/tmp/report.html", kPackage});
    expectFailure(result, 3, "'/tmp/release.pkg' was refused, nothing was flashed: ");
    EXPECT_TRUE(contains(result.err, "key")) << result.err;
    EXPECT_FALSE(exists(kLastRun));
    const std::vector<Json::Value> events = eventsIn(result.out);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0]["result"], "refused");
    EXPECT_EQ(events[0]["exit_code"], 3);
    EXPECT_TRUE(contains(readFile("/tmp/report.html"), "was refused, nothing was flashed"));
}

TEST_F(Install, with_a_trusted_key_that_cannot_be_read_does_not_begin) {
    packRelease();
    const ProgramResult result = upgradectl({"install", "--trusted-key", "/tmp/nowhere.pem", kPackage});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(contains(result.err, "/tmp/nowhere.pem")) << result.err;
    EXPECT_FALSE(exists(kLastRun));
}

struct ReportPlace {
    const char* path;
    int exitCode;
    const char* why;
};

TEST_F(Install, a_report_where_none_can_be_is_refused_before_anything_is_done) {
    TestPackage().writeTo(kPackage);
    std::filesystem::create_directory("/tmp/directory");
    std::filesystem::create_directory_symlink("/raw", "/tmp/link");
    constexpr ReportPlace kPlaces[] = {
        {"/raw/report.html", 2, "/raw belongs to the device's upgrades"},
        {"/tmp/link/report.html", 2, "/raw belongs to the device's upgrades"},
        {"/firmware/current.pkg", 2, "/firmware belongs to the device's upgrades"},
        {"/config/upgraded", 2, "/config belongs to the device's upgrades"},
        {"/dev/disk/by-partlabel/kernel_b", 2, "/dev belongs to the device's upgrades"},
        {kPackage, 2, "which a run reads or writes itself"},
        {"/tmp/upgrade.cfg", 2, "which a run reads or writes itself"},
        {"/tmp/directory", 1, "'/tmp/directory' exists and is no regular file"},
        {"/tmp/nowhere/report.html", 1, "'/tmp/nowhere/report.html' cannot be created"},
    };
    for (const ReportPlace& place : kPlaces) {
        const ProgramResult result = upgradectl({"install", "--json", "--report", place.path, kPackage});
        expectFailure(result, place.exitCode, place.why);
        const std::vector<Json::Value> events = eventsIn(result.out);
        ASSERT_EQ(events.size(), 1U) << result.out;
        EXPECT_EQ(events[0]["exit_code"], place.exitCode);
    }
    EXPECT_FALSE(exists(kLastRun));
    EXPECT_EQ(sizeOf(kPackage), 134217728);
}

TEST_F(Install, without_platform_json_tells_what_both_drivers_lack) {
    TestPackage().writeTo(kPackage);
    std::filesystem::remove("/etc/kavro/platform.json");
    const ProgramResult result = upgradectl({"install", kPackage});
    expectFailure(result, 1, "the flash drivers are not ready\n");
    EXPECT_TRUE(contains(result.err, "device: UpgradeMcu: /etc/kavro/platform.json: cannot be read"))
        << result.err;
    EXPECT_TRUE(contains(result.err, "device: UpgradeMpu: /etc/kavro/platform.json: cannot be read"))
        << result.err;
    EXPECT_EQ(result.err.find("UpgradeMcu:"), result.err.rfind("UpgradeMcu:")) << result.err;
    EXPECT_FALSE(exists(kLastRun));
}

TEST_F(Install, a_missing_package_is_refused) {
    expectFailure(upgradectl({"install", "/tmp/nowhere.pkg"}), 3, "'/tmp/nowhere.pkg' is missing");
}

TEST_F(Install, a_directory_is_refused) {
    expectFailure(upgradectl({"install", "/tmp"}), 3, "'/tmp' is no regular file");
}

TEST_F(Install, a_package_of_another_size_is_refused_before_a_run_begins) {
    TestPackage().setTotalSize(134217727).writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 3, "has 134217727 bytes");
    EXPECT_FALSE(exists(kLastRun));
}

class WorkFile : public testing::TestWithParam<const char*> {};

TEST_P(WorkFile, of_a_run_is_refused_as_its_package) {
    std::filesystem::create_directories("/raw/upgrade");
    TestPackage().writeTo(GetParam());
    expectFailure(upgradectl({"install", GetParam()}), 3, "is a file that the run itself replaces");
    EXPECT_EQ(sizeOf(GetParam()), 134217728);
}

INSTANTIATE_TEST_SUITE_P(Install, WorkFile,
                         testing::Values("/firmware/upgrade.pkg", "/firmware/rollback.pkg", "/raw/some.pkg",
                                         "/raw/upgrade/some.pkg"));

TEST_F(Install, the_received_package_is_installed_from_where_it_lies) {
    TestPackage().writeTo("/firmware/recv.tar.xz");
    EXPECT_EQ(upgradectl({"install", "/firmware/recv.tar.xz"}).exitCode, 0);
}

TEST_F(Install, a_damaged_payload_is_refused) {
    TestPackage().flipPayloadByte(1000).writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 3,
                  "'/tmp/release.pkg' is damaged: the md5 of its payload is not");
}

TEST_F(Install, a_damaged_trailer_is_refused) {
    TestPackage()
        .editTrailer([](testsupport::Trailer& trailer) { trailer.payloadLength = "NONUMBER"; })
        .writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 3,
                  "'/tmp/release.pkg' is damaged: its trailer cannot be read");
}

TEST_F(Install, a_package_that_is_whole_but_cannot_be_unpacked_is_not_called_damaged) {
    TestPackage().setPayload("no archive").writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 3,
                  "'/tmp/release.pkg' is whole, but could not be unpacked");
}

TEST_F(Install, a_wrong_signature_is_refused_with_the_name_of_the_component) {
    TestPackage().corruptSignature("ext4").writeTo(kPackage);
    const ProgramResult result = upgradectl({"install", kPackage});
    expectFailure(result, 3, "signature that does not verify");
    EXPECT_TRUE(contains(result.err, "('ext4' has a signature that does not verify")) << result.err;
    EXPECT_FALSE(exists(kLastRun));
}

TEST_F(Install, a_missing_component_is_refused) {
    TestPackage().omit("Image").writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 3, "lacks a component");
}

TEST_F(Install, a_component_larger_than_its_partition_fails_in_flashing) {
    constexpr std::size_t kMoreThanThePartition = 2 << 20;
    TestPackage()
        .setComponent("cv22_kavro_qz7.dtb", std::string(kMoreThanThePartition, 'd'))
        .writeTo(kPackage);
    expectFailure(upgradectl({"install", kPackage}), 4, "could not be flashed");
    EXPECT_EQ(readFile(kLastRun), "upgrade_failure");
}

class Rollback : public Install {};

TEST_F(Rollback, without_a_kept_package_fails_and_says_so) {
    expectFailure(upgradectl({"rollback"}), 1, "'/firmware/rollback.pkg' is missing\n");
}

TEST_F(Rollback, a_kept_package_of_another_size_is_refused) {
    writeFile("/firmware/rollback.pkg", "short");
    expectFailure(upgradectl({"rollback"}), 3,
                  "'/firmware/rollback.pkg' is damaged: the package '/firmware/rollback.pkg' has 5 bytes");
}

TEST_F(Rollback, while_an_installed_package_awaits_activation_changes_nothing) {
    packRelease();
    writeFile("/firmware/current.pkg", "the running software");
    ASSERT_EQ(upgradectl({"install", kPackage}).exitCode, 0);
    expectFailure(upgradectl({"rollback"}), 1, "an installed package awaits activation");
    EXPECT_EQ(readFile("/firmware/current.pkg"), "the running software");
    EXPECT_TRUE(readFile("/firmware/rollback.pkg") == readFile(kPackage));
    EXPECT_TRUE(exists(kMarker));
    EXPECT_EQ(readFile(kLastRun), "upgrade_success");
}

TEST_F(Rollback, of_a_damaged_package_is_refused_before_flashing) {
    TestPackage().setVersions(1, 103, 6, 2).flipPayloadByte(1000).writeTo("/firmware/rollback.pkg");
    const ProgramResult result = upgradectl({"rollback", "--report", "/tmp/report.html"});
    expectFailure(result, 3, "'/firmware/rollback.pkg' is damaged");
    EXPECT_TRUE(contains(result.err, "next: install a package instead")) << result.err;
    EXPECT_TRUE(contains(readFile("/tmp/report.html"), "is damaged"));
}

// Two releases with the same microcontroller: the first is kept, the second runs next.
class RollbackBySwitch : public Rollback {
  protected:
    void SetUp() override {
        Rollback::SetUp();
        first.setComponent("Image", "kernel of the first")
            .setVersions(1, 105, 7, 2)
            .writeTo("/tmp/first.pkg");
        second.setComponent("Image", "kernel of the second")
            .setVersions(1, 106, 7, 2)
            .writeTo("/tmp/second.pkg");
        ASSERT_EQ(upgradectl({"install", "/tmp/first.pkg"}).exitCode, 0);
        ASSERT_EQ(upgradectl({"activate"}).exitCode, 0);
        restart("b");
        ASSERT_EQ(upgradectl({"install", "/tmp/second.pkg"}).exitCode, 0);
        ASSERT_EQ(upgradectl({"activate"}).exitCode, 0);
        restart("a");
    }

    // As the boot loader and the started software do.
    static void restart(const std::string& slot) {
        writeFile("/run/kavro/running_slot", slot + "\n");
        ASSERT_EQ(upgradectl({"confirm"}).exitCode, 0);
        const bool isFirst = slot == "b";
        writeFile("/etc/kavro/version.json",
                  std::string(R"({"bld_version": 2, "hw_version": 1, "mcu_version": 7, "mpu_version": )") +
                      (isFirst ? "105}" : "106}"));
    }

    static std::string nextSlot() {
        return runProgram({"fw_printenv", "-c", "/etc/kavro/fw_env.config", "-n", "boot_slot"}).out;
    }

    static void damage(const char* partition) {
        std::fstream file(partition, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(2).put('x');
    }

    TestPackage first;
    TestPackage second;
};

TEST_F(RollbackBySwitch, writes_nothing_where_the_other_slot_holds_the_release) {
    const ProgramResult result = upgradectl({"rollback"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_FALSE(contains(result.out, "stage FLASHING_START")) << result.out;
    EXPECT_EQ(nextSlot(), "b\n");
}

TEST_F(RollbackBySwitch, installs_the_package_where_the_other_slot_is_damaged) {
    damage("/dev/disk/by-partlabel/kernel_b");
    const ProgramResult result = upgradectl({"rollback"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_TRUE(contains(result.out, "stage FLASHING_START")) << result.out;
    EXPECT_EQ(nextSlot(), "b\n");
    EXPECT_EQ(readFile("/dev/disk/by-partlabel/kernel_b").rfind(first.files().at("Image"), 0), 0U);
    EXPECT_EQ(readFile(kLastRun), "rollback_success");
    EXPECT_TRUE(readFile("/firmware/current.pkg") == readFile("/tmp/first.pkg"));
}

TEST_F(RollbackBySwitch, does_not_switch_to_a_damaged_slot_because_the_microcontroller_is_silent) {
    mcu.stop();
    damage("/dev/disk/by-partlabel/kernel_b");
    const ProgramResult result = upgradectl({"rollback"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(nextSlot(), "b\n");
    EXPECT_EQ(readFile("/dev/disk/by-partlabel/kernel_b").rfind(first.files().at("Image"), 0), 0U);
}

// The boot loader went back to the first release after the trial of the second: the kept package is that of what runs, until
// the packages have followed.
TEST_F(RollbackBySwitch, after_a_fallback_does_not_go_to_the_release_that_failed) {
    writeFile("/tmp/script", "boot_slot=b\nupgrade_available=0\n");
    ASSERT_EQ(runProgram({"fw_setenv", "-c", "/etc/kavro/fw_env.config", "-s", "/tmp/script"}).exitCode, 0);
    restart("b");
    expectFailure(upgradectl({"rollback"}), 3,
                  "holds V01.106.007.002, which failed its trial on this device");
    EXPECT_EQ(nextSlot(), "b\n");
    EXPECT_TRUE(exists("/firmware/rollback.pkg"));
}

TEST_F(Rollback, of_a_package_with_a_wrong_signature_is_refused) {
    TestPackage().setVersions(1, 103, 6, 2).corruptSignature("ext4").writeTo("/firmware/rollback.pkg");
    expectFailure(upgradectl({"rollback"}), 3, "'/firmware/rollback.pkg' is damaged");
    EXPECT_TRUE(exists("/firmware/rollback.pkg"));
}

TEST_F(Rollback, can_be_given_up_before_flashing) {
    TestPackage().setVersions(1, 103, 6, 2).writeTo("/firmware/rollback.pkg");
    Program rollback({UPGRADECTL, "rollback"});
    ASSERT_TRUE(rollback.waitForOutput("stage INIT"));
    kill(rollback.pid(), SIGINT);
    expectFailure(rollback.wait(), 5, "given up");
}

}  // namespace
