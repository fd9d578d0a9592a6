// What is found in the way of an installation.
#include "agent/preflight.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "agent/history.h"
#include "tests/agent/held_device.h"
#include "tests/agent/preflight_support.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/program.h"

namespace {

using namespace agent_test;
using kavro::ErrorCode;
using kavro::agent::Preflight;
using kavro::agent::PreflightOptions;
using testsupport::writeFile;

constexpr const char* kVersion = "V01.105.008.003";

// On a device with a package for it, and with a microcontroller that answers.
class AgentPreflight : public testsupport::DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_TRUE(mcu.start());
        release().writeTo(kPackage);
    }

    testsupport::McuEmulator mcu;
};

PreflightOptions forced() {
    PreflightOptions options;
    options.force = true;
    return options;
}

PreflightOptions trusting(const std::string& key) {
    writeFile("/tmp/trusted.pem", key);
    PreflightOptions options;
    options.trustedKey = "/tmp/trusted.pem";
    return options;
}

void setBootEnvironment(const std::string& script) {
    writeFile("/tmp/script", script);
    const auto result =
        testsupport::runProgram({"fw_setenv", "-c", "/etc/kavro/fw_env.config", "-s", "/tmp/script"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

void beOnTrial() {
    setBootEnvironment("boot_slot=a\nupgrade_available=1\nbootcount=1\nbootlimit=3\n");
}

TEST_F(AgentPreflight, of_a_package_in_order_finds_nothing) {
    const Preflight preflight = look();
    EXPECT_TRUE(preflight.clear()) << preflight.obstacles.front().text;
    EXPECT_EQ(preflight.version, kVersion);
    EXPECT_TRUE(preflight.programsMicrocontroller);
    ASSERT_TRUE(preflight.check);
    EXPECT_TRUE(preflight.check->inOrder());
}

TEST_F(AgentPreflight, is_refused_to_another_user) {
    int names[2] = {};
    ASSERT_EQ(pipe(names), 0);
    const pid_t user = fork();
    if (user == 0) {
        constexpr uid_t kNobody = 65534;
        const bool changed = seteuid(kNobody) == 0;
        const auto result = kavro::agent::preflight(kPackage, {});
        const std::string first =
            changed ? result.value().obstacles.front().name : "no other user can be had";
        (void)!write(names[1], first.data(), first.size());
        _exit(0);
    }
    close(names[1]);
    char text[64] = {};
    EXPECT_GT(read(names[0], text, sizeof text - 1), 0);
    close(names[0]);
    waitpid(user, nullptr, 0);
    if (std::string(text) == "no other user can be had") {
        GTEST_SKIP() << text;
    }
    EXPECT_STREQ(text, "not_root");
}

TEST_F(AgentPreflight, tells_who_changes_the_device) {
    const HeldDevice other;
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"busy"});
    const kavro::Error error = errorOf(preflight);
    EXPECT_EQ(error.code, ErrorCode::kBusy);
    EXPECT_EQ(error.text.rfind("process " + std::to_string(other.pid()) + " (", 0), 0U) << error.text;
}

TEST_F(AgentPreflight, of_whoever_has_the_device_itself_is_not_in_its_own_way) {
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    EXPECT_EQ(obstacles(), Names{"busy"});
    PreflightOptions options;
    options.ignoreLock = true;
    EXPECT_EQ(obstacles(options), Names{});
    UPGRADE_unlock_device();
}

TEST_F(AgentPreflight, refuses_what_the_run_itself_replaces) {
    for (const char* path : {"/firmware/upgrade.pkg", "/firmware/rollback.pkg", "/raw/some.pkg"}) {
        release().writeTo(path);
        const Preflight preflight = look({}, path);
        ASSERT_EQ(namesOf(preflight.obstacles), Names{"work_file"}) << path;
        EXPECT_EQ(preflight.obstacles[0].text,
                  std::string("the package '") + path + "' is a file that the run itself replaces");
        std::filesystem::remove(path);
    }
}

// What a path is that names no package.
struct NoPackage {
    const char* path;
    const char* text;
};

TEST_F(AgentPreflight, refuses_a_file_that_is_no_package) {
    writeFile("/tmp/short.pkg", "short");
    constexpr NoPackage kCases[] = {
        {"/tmp/nowhere.pkg", "the package '/tmp/nowhere.pkg' is missing"},
        {"/tmp", "the package '/tmp' is no regular file"},
        {"/tmp/short.pkg", "the package '/tmp/short.pkg' has 5 bytes, a package has 134217728"},
    };
    for (const NoPackage& wrong : kCases) {
        const Preflight preflight = look({}, wrong.path);
        ASSERT_EQ(namesOf(preflight.obstacles), Names{"package"}) << wrong.path;
        EXPECT_EQ(preflight.obstacles[0].text, wrong.text);
        EXPECT_EQ(preflight.version, "");
    }
}

TEST_F(AgentPreflight, refuses_a_damaged_package_even_by_force) {
    release().flipPayloadByte(-1).writeTo(kPackage);
    const Preflight preflight = look(forced());
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"package"});
    EXPECT_EQ(preflight.obstacles[0].text.rfind("the package '/tmp/release.pkg' is damaged: the md5 of its "
                                                "payload is not that of its trailer (the payload has",
                                                0),
              0U)
        << preflight.obstacles[0].text;
}

TEST_F(AgentPreflight, tells_a_damaged_trailer_and_not_what_follows_from_it) {
    release()
        .editTrailer([](testsupport::Trailer& trailer) { trailer.payloadLength = "NONUMBER"; })
        .writeTo(kPackage);
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"package"});
    EXPECT_NE(preflight.obstacles[0].text.find("its trailer cannot be read"), std::string::npos);
}

TEST_F(AgentPreflight, takes_a_package_that_carries_the_trusted_key) {
    EXPECT_EQ(obstacles(trusting(testsupport::SigningKey::shared().publicKey())), Names{});
}

TEST_F(AgentPreflight, refuses_a_package_that_only_lacks_trust) {
    const PreflightOptions options = trusting(testsupport::SigningKey().publicKey());
    const Preflight preflight = look(options);
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"package"});
    EXPECT_TRUE(preflight.check->lacksOnlyTrust());
    EXPECT_NE(preflight.obstacles[0].text.find("does not carry the trusted key"), std::string::npos);
}

TEST_F(AgentPreflight, does_not_look_without_the_trusted_key) {
    PreflightOptions options;
    options.trustedKey = "/tmp/nowhere.pem";
    const auto result = kavro::agent::preflight(kPackage, options);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, ErrorCode::kUsage);
}

TEST_F(AgentPreflight, needs_a_microcontroller_that_is_to_be_programmed) {
    mcu.stop();
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"microcontroller"});
    EXPECT_EQ(
        preflight.obstacles[0].text,
        "the microcontroller does not answer, and the package brings it version 8 in place of version 7");
    EXPECT_FALSE(preflight.obstacles[0].forceable);
}

TEST_F(AgentPreflight, does_without_a_microcontroller_that_keeps_its_version) {
    mcu.stop();
    release().setVersions(1, 105, 7, 3).writeTo(kPackage);
    const Preflight preflight = look();
    EXPECT_EQ(namesOf(preflight.obstacles), Names{});
    EXPECT_FALSE(preflight.programsMicrocontroller);
}

// Nothing else would ever mend it.
TEST_F(AgentPreflight, lets_a_microcontroller_be_programmed_that_has_lost_its_application) {
    mcu.stop();
    ASSERT_TRUE(mcu.format(testsupport::McuEmulator::kNoApplication));
    ASSERT_TRUE(mcu.start());
    testsupport::writeVersions("/config/upgrade_config.json", testsupport::versionOf(1, 104, -1, 2));
    const Preflight preflight = look();
    EXPECT_EQ(namesOf(preflight.obstacles), Names{});
    EXPECT_TRUE(preflight.programsMicrocontroller);
}

TEST_F(AgentPreflight, refuses_while_the_slots_are_not_known) {
    std::filesystem::remove("/etc/kavro/fw_env.config");
    const Preflight preflight = look();
    ASSERT_EQ(namesOf(preflight.obstacles), Names{"slot_unknown"});
    EXPECT_NE(preflight.obstacles[0].text.find("/etc/kavro/fw_env.config"), std::string::npos)
        << preflight.obstacles[0].text;
}

TEST_F(AgentPreflight, keeps_the_slot_to_fall_back_to_while_the_other_is_on_trial_unless_it_is_forced) {
    beOnTrial();
    EXPECT_EQ(obstacles(), Names{"on_trial"});
    const Preflight preflight = look(forced());
    EXPECT_TRUE(preflight.clear());
    EXPECT_EQ(namesOf(preflight.overridden), Names{"on_trial"});
}

TEST_F(AgentPreflight, may_replace_a_slot_that_was_activated_and_not_started) {
    setBootEnvironment("boot_slot=b\nupgrade_available=1\nbootcount=0\nbootlimit=3\n");
    EXPECT_EQ(obstacles(), Names{});
}

TEST_F(AgentPreflight, refuses_a_release_that_the_device_has_fallen_back_from_unless_it_is_forced) {
    kavro::agent::HistoryEntry fallback;
    fallback.event = "fallback";
    fallback.outcome = "ok";
    fallback.release = kVersion;
    fallback.before = kVersion;
    ASSERT_TRUE(kavro::agent::appendHistory(fallback).ok());
    EXPECT_EQ(obstacles(), Names{"failed_trial"});
    EXPECT_EQ(namesOf(look(forced()).overridden), Names{"failed_trial"});
}

TEST_F(AgentPreflight, refuses_the_release_that_runs_unless_it_is_forced) {
    release().setVersions(1, 104, 7, 2).writeTo(kPackage);
    EXPECT_EQ(obstacles(), Names{"same_version"});
    EXPECT_EQ(namesOf(look(forced()).overridden), Names{"same_version"});
}

TEST_F(AgentPreflight, installs_the_release_that_runs_over_an_unfinished_one) {
    mcu.stop();
    ASSERT_TRUE(mcu.format(9));
    ASSERT_TRUE(mcu.start());
    release().setVersions(1, 104, 7, 2).writeTo(kPackage);
    EXPECT_EQ(obstacles(), Names{});
}

TEST_F(AgentPreflight, tells_everything_at_once_and_in_its_order) {
    mcu.stop();
    beOnTrial();
    release().corruptSignature("ext4").writeTo("/raw/release.pkg");
    const Preflight preflight = look({}, "/raw/release.pkg");
    ASSERT_EQ(namesOf(preflight.obstacles), (Names{"work_file", "package", "microcontroller", "on_trial"}));
    const kavro::Error error = errorOf(preflight);
    EXPECT_EQ(error.code, ErrorCode::kRefused);
    EXPECT_EQ(error.text, preflight.obstacles[0].text);
    ASSERT_EQ(error.further.size(), 3U);
    EXPECT_EQ(error.further[2].text, preflight.obstacles[3].text);
    EXPECT_EQ(error.further[2].code, ErrorCode::kRefused);
}

TEST_F(AgentPreflight, is_refused_rather_than_busy_when_more_is_in_the_way) {
    const HeldDevice other;
    release().flipPayloadByte(-1).writeTo(kPackage);
    const Preflight preflight = look();
    EXPECT_EQ(namesOf(preflight.obstacles), (Names{"busy", "package"}));
    EXPECT_EQ(errorOf(preflight).code, ErrorCode::kRefused);
}

TEST_F(AgentPreflight, goes_over_nothing_but_what_can_be_forced) {
    mcu.stop();
    beOnTrial();
    const Preflight preflight = look(forced());
    EXPECT_EQ(namesOf(preflight.obstacles), Names{"microcontroller"});
    EXPECT_EQ(namesOf(preflight.overridden), Names{"on_trial"});
}

}  // namespace
