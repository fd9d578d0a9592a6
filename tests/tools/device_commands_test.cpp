#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/mcu_emulator.h"
#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"
#include "upgrade/device_lock.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace {

using namespace tool_test;
using testsupport::exists;
using testsupport::readFile;
using testsupport::TestPackage;
using testsupport::writeFile;

TEST(Init, tells_the_directory_for_packages_and_writes_the_version_file) {
    const ProgramResult result = upgradectl({"init"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "ready, packages go to /firmware\n");
    EXPECT_TRUE(exists("/config/upgrade_config.json"));
}

// A device that has nothing to say but what its state is.
class Status : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(mcu.start()); }

    static void setEnvironment(const std::string& lines) {
        writeFile("/tmp/script", lines);
        ASSERT_EQ(runProgram({"fw_setenv", "-c", "/etc/kavro/fw_env.config", "-s", "/tmp/script"}).exitCode,
                  0);
    }

    testsupport::McuEmulator mcu;
};

TEST_F(Status, of_a_new_device_tells_its_versions_and_nothing_else) {
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out,
              "factory version         V01.104.007.002\n"
              "current version         V01.104.007.002\n"
              "state                   idle\n"
              "running slot            a\n"
              "next slot               a\n"
              "microcontroller         7\n"
              "last run                none\n"
              "/firmware/current.pkg   -\n"
              "/firmware/rollback.pkg  -\n"
              "/firmware/recv.tar.xz   -\n");
}

TEST_F(Status, tells_what_awaits_activation_and_the_packages) {
    writeFile(kMarker, "");
    TestPackage().writeTo("/firmware/rollback.pkg");
    writeFile("/firmware/current.pkg", "short");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_TRUE(contains(result.out, "state                   installed, awaits activation\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "/firmware/rollback.pkg  134217728 bytes\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "/firmware/current.pkg   5 bytes (not a whole package)\n"))
        << result.out;
}

TEST_F(Status, leaves_the_outcome_of_the_last_run_to_the_application) {
    writeFile(kLastRun, "rollback_success");
    EXPECT_TRUE(contains(upgradectl({"status"}).out, "last run                rollback_success\n"));
    EXPECT_EQ(readFile(kLastRun), "rollback_success");
}

TEST_F(Status, consumes_the_outcome_of_the_last_run_on_request) {
    writeFile(kLastRun, "upgrade_failure");
    EXPECT_TRUE(
        contains(upgradectl({"status", "--consume"}).out, "last run                upgrade_failure\n"));
    EXPECT_FALSE(exists(kLastRun));
    EXPECT_TRUE(contains(upgradectl({"status"}).out, "last run                none\n"));
}

TEST_F(Status, a_damaged_outcome_is_told_as_unknown) {
    writeFile(kLastRun, "\x1b[2Jgarbage");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_TRUE(contains(result.out, "last run                unknown (")) << result.out;
    EXPECT_FALSE(contains(result.out, "\x1b"));
}

TEST_F(Status, without_factory_versions_fails_and_still_tells_the_rest) {
    std::filesystem::remove("/etc/kavro/version.json");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "factory version         unknown\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "state                   idle\n")) << result.out;
    EXPECT_TRUE(contains(result.err, "'/etc/kavro/version.json' cannot be read")) << result.err;
}

TEST(StatusWithoutMicrocontroller, shows_the_version_of_what_was_not_written_to_its_end_as_unfinished) {
    writeFile("/config/upgrade_config.json",
              R"({"bld_version": 2, "hw_version": 1, "mcu_version": -1, "mpu_version": 104})");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_TRUE(contains(result.out, "current version         V01.104.--.002 (--: unfinished)\n"))
        << result.out;
}

TEST_F(Status, without_platform_json_fails_and_says_what_is_missing) {
    std::filesystem::remove("/etc/kavro/platform.json");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "state                   idle\n")) << result.out;
    EXPECT_TRUE(contains(result.err, "/etc/kavro/platform.json: cannot be read")) << result.err;
}

TEST_F(Status, tells_a_program_the_same) {
    writeFile(kMarker, "");
    writeFile(kLastRun, "upgrade_success");
    writeFile("/firmware/current.pkg", "short");
    const ProgramResult result = upgradectl({"status", "--json"});
    EXPECT_EQ(result.exitCode, 1) << result.err;
    EXPECT_EQ(parsed(result.out), parsed(R"({
        "factory_version": "V01.104.007.002",
        "current_version": "V01.104.007.002",
        "state": "installed",
        "running_slot": "a",
        "next_slot": "a",
        "next_version": "V01.104.007.002",
        "restart_pending": false,
        "trial": null,
        "fallback": null,
        "awaiting_version": null,
        "run": null,
        "microcontroller": 7,
        "microcontroller_fault": null,
        "last_run": "upgrade_success",
        "packages": [
            {"path": "/firmware/current.pkg", "bytes": 5, "whole": false, "version": null},
            {"path": "/firmware/rollback.pkg", "bytes": null, "whole": false, "version": null},
            {"path": "/firmware/recv.tar.xz", "bytes": null, "whole": false, "version": null}
        ],
        "needs": [
            {"name": "activate", "text": "an installed package awaits its activation", "next": "upgradectl activate, or upgradectl discard to drop it"}
        ]})"))
        << result.out;
}

TEST_F(Status, tells_a_program_what_is_not_known_as_null) {
    writeFile(kLastRun, "DAMAGED");
    std::filesystem::remove("/etc/kavro/version.json");
    const ProgramResult result = upgradectl({"status", "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const Json::Value status = parsed(result.out);
    EXPECT_TRUE(status.isMember("factory_version") && status["factory_version"].isNull()) << result.out;
    EXPECT_TRUE(status.isMember("last_run") && status["last_run"].isNull()) << result.out;
}

TEST_F(Status, of_a_device_that_somebody_must_act_on_says_so_and_fails) {
    writeFile(kLastRun, "upgrade_failure");
    writeFile(kMarker, "");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(
        result.out,
        "to do                   upgradectl activate, or upgradectl discard to drop it: an installed "
        "package awaits its activation\n"))
        << result.out;
    EXPECT_TRUE(contains(result.err, "an installed package awaits its activation")) << result.err;
}

TEST_F(Status, of_a_trial_tells_its_starts_and_asks_for_the_confirmation) {
    setEnvironment("boot_slot=a\nupgrade_available=1\nbootcount=1\nbootlimit=3\n");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "trial                   start 1 of 3\n")) << result.out;
    EXPECT_TRUE(contains(result.err, "the running software is on trial, start 1 of 3")) << result.err;
}

TEST_F(Status, of_a_switch_that_awaits_a_restart_tells_both_slots) {
    setEnvironment("boot_slot=b\nupgrade_available=1\nbootcount=0\nbootlimit=3\n");
    TestPackage().setVersions(1, 105, 7, 2).writeTo("/firmware/current.pkg");
    const ProgramResult result = upgradectl({"status", "--json"});
    EXPECT_EQ(result.exitCode, 1);
    const Json::Value status = parsed(result.out);
    EXPECT_EQ(status["running_slot"], "a");
    EXPECT_EQ(status["next_slot"], "b");
    EXPECT_EQ(status["next_version"], "V01.105.007.002");
    EXPECT_TRUE(status["restart_pending"].asBool());
    EXPECT_EQ(status["needs"][0]["name"], "restart");
}

TEST_F(Status, of_a_microcontroller_of_another_release_says_so) {
    writeFile("/etc/kavro/version.json",
              R"({"bld_version": 2, "hw_version": 1, "mcu_version": 9, "mpu_version": 104})");
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "the microcontroller has version 7, the running software brings 9"))
        << result.err;
}

TEST_F(Status, during_a_run_of_another_process_tells_which_one_that_is) {
    int ready[2] = {};
    ASSERT_EQ(pipe(ready), 0);
    const pid_t other = fork();
    if (other == 0) {
        (void)!write(ready[1], UPGRADE_lock_device(nullptr) == UPGRADE_LOCK_TAKEN ? "y" : "n", 1);
        pause();
        _exit(0);
    }
    char answer = 0;
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "state                   a run is in progress\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "run                     process " + std::to_string(other) + " ("))
        << result.out;
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
}

TEST(StatusWithoutMicrocontroller, says_that_it_gives_no_answer) {
    const ProgramResult result = upgradectl({"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "microcontroller         no answer\n")) << result.out;
    EXPECT_TRUE(contains(result.err, "the microcontroller gives no version")) << result.err;
}

TEST(Versions, of_device_microcontroller_and_kept_packages_are_told) {
    testsupport::McuEmulator mcu;
    ASSERT_TRUE(mcu.start());
    TestPackage().setVersions(1, 103, 6, 2).writeTo("/firmware/rollback.pkg");
    writeFile("/firmware/current.pkg", "short");
    const ProgramResult result = upgradectl({"versions"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out,
              "factory version         V01.104.007.002\n"
              "current version         V01.104.007.002\n"
              "microcontroller         7\n"
              "/firmware/current.pkg   unknown\n"
              "/firmware/rollback.pkg  V01.103.006.002\n");
    EXPECT_EQ(parsed(upgradectl({"versions", "--json"}).out), parsed(R"({
        "factory_version": "V01.104.007.002",
        "current_version": "V01.104.007.002",
        "microcontroller": 7,
        "packages": [
            {"path": "/firmware/current.pkg", "version": null},
            {"path": "/firmware/rollback.pkg", "version": "V01.103.006.002"}
        ]})"));
}

TEST(Versions, of_a_microcontroller_that_does_not_answer_are_not_told) {
    const ProgramResult result = upgradectl({"versions"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "microcontroller         no answer\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "/firmware/rollback.pkg  -\n")) << result.out;
}

TEST(Activate, without_an_installed_package_fails_and_says_so) {
    const ProgramResult result = upgradectl({"activate"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "no installed package awaits activation")) << result.err;
    EXPECT_TRUE(contains(result.err, "next: install one")) << result.err;
}

TEST(Activate, without_platform_json_says_so_and_does_not_ask_for_a_package) {
    std::filesystem::remove("/etc/kavro/platform.json");
    const ProgramResult result = upgradectl({"activate"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "/etc/kavro/platform.json: cannot be read")) << result.err;
    EXPECT_FALSE(contains(result.err, "install one")) << result.err;
}

TEST(Activate, when_nothing_complete_was_flashed_fails_and_keeps_the_marker) {
    writeFile(kMarker, "");
    TestPackage().writeTo("/firmware/rollback.pkg");
    const ProgramResult result = upgradectl({"activate"});
    EXPECT_EQ(result.exitCode, 1) << result.out;
    EXPECT_TRUE(contains(result.err, "could not be switched")) << result.err;
    EXPECT_TRUE(exists(kMarker));
}

std::string environmentVariable(const std::string& name) {
    return runProgram({"fw_printenv", "-c", "/etc/kavro/fw_env.config", name}).out;
}

TEST(Confirm, ends_the_trial_of_the_running_slot) {
    for (const char* setting : {"upgrade_available 1", "bootcount 2"}) {
        const ProgramResult set =
            runProgram({"sh", "-c", std::string("fw_setenv -c /etc/kavro/fw_env.config ") + setting});
        ASSERT_EQ(set.exitCode, 0) << set.err;
    }
    const ProgramResult result = upgradectl({"confirm"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "the running slot is confirmed\n");
    EXPECT_EQ(environmentVariable("upgrade_available"), "upgrade_available=0\n");
    EXPECT_EQ(environmentVariable("bootcount"), "bootcount=0\n");
}

TEST(Confirm, without_a_trial_changes_nothing) {
    const std::string before =
        readFile("/dev/disk/by-partlabel/env_a") + readFile("/dev/disk/by-partlabel/env_b");
    const ProgramResult result = upgradectl({"confirm"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(readFile("/dev/disk/by-partlabel/env_a") + readFile("/dev/disk/by-partlabel/env_b"), before);
}

TEST(Confirm, without_a_boot_environment_fails_and_says_why) {
    writeFile("/dev/disk/by-partlabel/env_a", std::string(0x4000, 'x'));
    writeFile("/dev/disk/by-partlabel/env_b", std::string(0x4000, 'x'));
    const ProgramResult result = upgradectl({"confirm"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(contains(result.err, "the running slot could not be confirmed\n  device: ")) << result.err;
    EXPECT_TRUE(contains(result.err, "/etc/kavro/fw_env.config")) << result.err;
}

TEST(Confirm, needs_nothing_of_the_microcontroller) {
    std::string platform = readFile("/etc/kavro/platform.json");
    const std::size_t link = platform.find("unix:/dev/kavro-mcu/link");
    ASSERT_NE(link, std::string::npos);
    writeFile("/etc/kavro/platform.json", platform.erase(link, 5));
    EXPECT_EQ(upgradectl({"init"}).exitCode, 1);
    EXPECT_EQ(upgradectl({"confirm"}).exitCode, 0);
}

TEST(Confirm, without_a_driver_fails_and_says_why) {
    writeFile("/etc/kavro/platform.json", "{}");
    const ProgramResult result = upgradectl({"confirm"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(contains(result.err, "flash driver is not ready\n  device: ")) << result.err;
    EXPECT_TRUE(contains(result.err, "/etc/kavro/platform.json")) << result.err;
}

TEST(PackedPackage, is_read_by_the_device_field_for_field) {
    makeComponents("/tmp/components");
    makeRsaKey("/tmp/key.pem", 4096);
    const std::string branch(200, 'b');
    const ProgramResult packed = upgradectl({"pack", "-k", "/tmp/key.pem", "--version", "1.105.8.3",
                                             "--stamp", "20261121", "--ident", "0123456789abcdef", "--branch",
                                             branch, "--user", "builder", "-o", kPackage, "/tmp/components"});
    ASSERT_EQ(packed.exitCode, 0) << packed.err;

    _UPGRADE_PKG_T info;
    ASSERT_EQ(read_info_form_pkg(info, kPackage), 0);
    EXPECT_EQ(std::string(info.stamp), "20261121");
    EXPECT_EQ(std::string(info.ident), "0123456789abcdef");
    EXPECT_EQ(info.version.hw, 1);
    EXPECT_EQ(info.version.mpu, 105);
    EXPECT_EQ(info.version.mcu, 8);
    EXPECT_EQ(info.version.bld, 3);
    EXPECT_EQ(std::string(info.branch), branch.substr(0, 127));
    EXPECT_EQ(std::string(info.user), "builder");
    EXPECT_TRUE(
        contains(packed.out, "payload   " + std::to_string(info.pkg_file_len) + " bytes, md5 " + info.md5))
        << packed.out;
    EXPECT_EQ(readFile("/tmp/pubkey"), runProgram({"openssl", "pkey", "-in", "/tmp/key.pem", "-pubout"}).out);
}

}  // namespace
