// What is told of an installation that is not made.
#include <gtest/gtest.h>

#include <string>

#include "tests/agent/held_device.h"
#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"
#include "tests/tools/powered_device.h"

namespace {

using namespace tool_test;
using testsupport::exists;
using testsupport::TestPackage;

class CheckCommand : public PoweredDevice {};

TestPackage release() {
    return TestPackage().setVersions(1, 105, 8, 3);
}

TestPackage runningRelease() {
    return TestPackage().setVersions(1, 104, 7, 2);
}

TEST_F(CheckCommand, says_that_nothing_is_in_the_way) {
    release().writeTo(kPackage);
    const ProgramResult result = upgradectl({"check", kPackage});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, "'/tmp/release.pkg', V01.105.008.003, can be installed\n");
    EXPECT_FALSE(exists(kLastRun));
}

TEST_F(CheckCommand, tells_everything_that_is_in_the_way) {
    mcu.stop();
    release().corruptSignature("Image").writeTo("/raw/release.pkg");
    const ProgramResult result = upgradectl({"check", "/raw/release.pkg"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.out, "");
    const std::size_t workFile =
        result.err.find("upgradectl: the package '/raw/release.pkg' is a file that the run");
    const std::size_t package =
        result.err.find("\nupgradectl: the package '/raw/release.pkg' lacks a component");
    const std::size_t mcuObstacle = result.err.find("\nupgradectl: the microcontroller does not answer");
    EXPECT_EQ(workFile, 0U) << result.err;
    EXPECT_LT(workFile, package) << result.err;
    EXPECT_LT(package, mcuObstacle) << result.err;
    EXPECT_NE(mcuObstacle, std::string::npos) << result.err;
    EXPECT_TRUE(exists("/raw/release.pkg"));
}

TEST_F(CheckCommand, is_busy_while_another_process_changes_the_device) {
    release().writeTo(kPackage);
    const agent_test::HeldDevice other;
    const ProgramResult result = upgradectl({"check", "--json", kPackage});
    EXPECT_EQ(result.exitCode, 6);
    EXPECT_TRUE(contains(result.err, "process " + std::to_string(other.pid()) + " (")) << result.err;
    const Json::Value found = parsed(result.out);
    EXPECT_FALSE(found["clear"].asBool());
    ASSERT_EQ(found["obstacles"].size(), 1U);
    EXPECT_EQ(found["obstacles"][0]["name"], "busy");
}

TEST_F(CheckCommand, tells_a_program_what_can_be_forced) {
    runningRelease().writeTo(kPackage);
    const ProgramResult refused = upgradectl({"check", "--json", kPackage});
    EXPECT_EQ(refused.exitCode, 3);
    const Json::Value found = parsed(refused.out);
    EXPECT_EQ(found["package"], kPackage);
    EXPECT_EQ(found["version"], "V01.104.007.002");
    EXPECT_FALSE(found["programs_microcontroller"].asBool());
    ASSERT_EQ(found["obstacles"].size(), 1U);
    EXPECT_EQ(found["obstacles"][0]["name"], "same_version");
    EXPECT_TRUE(found["obstacles"][0]["forceable"].asBool());
    EXPECT_EQ(found["overridden"].size(), 0U);

    const ProgramResult forced = upgradectl({"check", "--json", "--force", kPackage});
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    const Json::Value free = parsed(forced.out);
    EXPECT_TRUE(free["clear"].asBool());
    EXPECT_EQ(free["obstacles"].size(), 0U);
    EXPECT_EQ(free["overridden"][0]["name"], "same_version");
}

TEST_F(CheckCommand, with_a_trusted_key_that_cannot_be_read_is_a_wrong_command_line) {
    release().writeTo(kPackage);
    const ProgramResult result = upgradectl({"check", "--trusted-key", "/tmp/nowhere.pem", kPackage});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(contains(result.err, "/tmp/nowhere.pem")) << result.err;
}

TEST_F(CheckCommand, finds_what_an_installation_is_refused_for_unless_it_is_forced) {
    runningRelease().writeTo(kPackage);
    const ProgramResult refused = upgradectl({"install", "--json", kPackage});
    EXPECT_EQ(refused.exitCode, 3);
    EXPECT_TRUE(contains(refused.err, "the device runs V01.104.007.002 already")) << refused.err;
    EXPECT_FALSE(exists(kLastRun));

    const ProgramResult forced = upgradectl({"install", "--force", "--plain", kPackage});
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_TRUE(contains(forced.out, "by force: the device runs V01.104.007.002 already")) << forced.out;
}

TEST_F(CheckCommand, is_what_an_installation_tells_a_program_at_once) {
    mcu.stop();
    release().corruptSignature("Image").writeTo(kPackage);
    const ProgramResult result = upgradectl({"install", "--json", kPackage});
    EXPECT_EQ(result.exitCode, 3);
    const std::vector<Json::Value> events = eventsIn(result.out);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_TRUE(contains(events[0]["message"].asString(), "lacks a component")) << result.out;
    ASSERT_EQ(events[0]["further"].size(), 1U);
    EXPECT_TRUE(contains(events[0]["further"][0]["message"].asString(), "microcontroller")) << result.out;
    EXPECT_TRUE(contains(events[0]["further"][0]["next"].asString(), "power")) << result.out;
}

}  // namespace
