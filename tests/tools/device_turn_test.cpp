// One process at a time changes the device.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/agent/held_device.h"
#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"
#include "tests/tools/powered_device.h"

namespace {

using namespace tool_test;
using agent_test::HeldDevice;
using testsupport::TestPackage;

class DeviceTurn : public PoweredDevice {
  protected:
    void SetUp() override {
        PoweredDevice::SetUp();
        TestPackage().setVersions(1, 105, 8, 3).writeTo(kPackage);
    }
};

std::string holderText(int pid) {
    return "process " + std::to_string(pid) + " (";
}

TEST_F(DeviceTurn, of_a_second_installation_does_not_come_while_the_first_goes_on) {
    Program first({UPGRADECTL, "install", kPackage});
    ASSERT_TRUE(first.waitForOutput("stage INIT"));
    const ProgramResult second = upgradectl({"install", "--json", kPackage});
    EXPECT_EQ(second.exitCode, 6) << second.err;
    EXPECT_TRUE(contains(second.err, holderText(first.pid()))) << second.err;
    EXPECT_TRUE(contains(second.err, " install /tmp/release.pkg) is changing the device")) << second.err;
    const std::vector<Json::Value> events = eventsIn(second.out);
    ASSERT_EQ(events.size(), 1U) << second.out;
    EXPECT_EQ(events[0]["result"], "busy");
    EXPECT_EQ(events[0]["exit_code"], 6);
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_TRUE(testsupport::exists(kMarker));
}

TEST_F(DeviceTurn, of_a_second_installation_that_waits_comes_after_the_first) {
    Program first({UPGRADECTL, "install", kPackage});
    ASSERT_TRUE(first.waitForOutput("stage INIT"));
    const ProgramResult second = upgradectl({"install", "--wait", "300", kPackage});
    EXPECT_TRUE(first.hasEnded());
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_TRUE(contains(second.out, "stage DONE, state FINISH")) << second.out;
}

// What a process does with a signal, as the kernel tells it.
bool catches(int pid, int signal) {
    const std::string status = testsupport::readFile("/proc/" + std::to_string(pid) + "/status");
    const std::size_t at = status.find("SigCgt:");
    return at != std::string::npos &&
           (std::stoull(status.substr(at + 7), nullptr, 16) >> (signal - 1) & 1U) != 0;
}

void waitUntilCaught(Program& program, int signal) {
    while (!program.hasEnded() && !catches(program.pid(), signal)) {
        usleep(10000);
    }
}

class ChangingCommand : public DeviceTurn, public testing::WithParamInterface<const char*> {
  protected:
    static std::vector<std::string> words() {
        const std::string command = GetParam();
        return command == "install" ? std::vector<std::string>{command, kPackage}
                                    : std::vector<std::string>{command};
    }
};

TEST_P(ChangingCommand, is_refused_while_another_process_changes_the_device) {
    const HeldDevice other;
    const ProgramResult result = upgradectl(words());
    EXPECT_EQ(result.exitCode, 6) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, holderText(other.pid()))) << result.err;
    EXPECT_FALSE(testsupport::exists(kLastRun));
}

TEST_P(ChangingCommand, stops_waiting_when_it_is_interrupted) {
    const HeldDevice other;
    std::vector<std::string> command = words();
    command.insert(command.begin(), UPGRADECTL);
    command.insert(command.end(), {"--wait", "600"});
    Program waiting(command);
    waitUntilCaught(waiting, SIGINT);
    kill(waiting.pid(), SIGINT);
    const ProgramResult result = waiting.wait();
    EXPECT_EQ(result.exitCode, 5) << result.err;
    EXPECT_TRUE(contains(result.err, "given up while another process was changing the device")) << result.err;
}

INSTANTIATE_TEST_SUITE_P(DeviceTurn, ChangingCommand,
                         testing::Values("install", "rollback", "activate", "confirm", "init", "discard"));

TEST_F(DeviceTurn, comes_for_an_activation_that_waits) {
    ASSERT_EQ(upgradectl({"install", kPackage}).exitCode, 0);
    const HeldDevice other(std::chrono::seconds(1));
    const ProgramResult result = upgradectl({"activate", "--wait", "300"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_FALSE(testsupport::exists(kMarker));
}

TEST_F(DeviceTurn, is_waited_for_in_whole_seconds_only) {
    EXPECT_EQ(upgradectl({"activate", "--wait", "soon"}).exitCode, 2);
    EXPECT_EQ(upgradectl({"activate", "--wait", "-1"}).exitCode, 2);
}

}  // namespace
