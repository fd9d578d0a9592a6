// What docs/message-node.md shows: the commands that stand there, with the tool nngcat as the subscriber and the
// upgrade manager as the publisher.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "common/message_node.h"
#include "tests/tools/device_support.h"
#include "upgrade/upgrade_api.h"

namespace {

using namespace tool_test;

const std::string kStart = R"("\x65\x10\x00\x00\x0c\x00\x00\x00\x02\x00\x00\x00\x01\x00\x00\x00")";
const std::string kMainProcessor = R"("\x65\x10\x00\x00\x0c\x00\x00\x00\x02\x00\x00\x00\x02\x00\x00\x00")";

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

const std::vector<std::string>& documentation() {
    static const std::vector<std::string> kLines =
        linesOf(testsupport::readFile(KAVRO_SOURCE_DIR "/docs/message-node.md"));
    return kLines;
}

// Starts the one command of the documentation that holds a text.
Program startDocumented(const std::string& text) {
    const std::string prompt = "$ ";
    std::vector<std::string> commands;
    for (const std::string& line : documentation()) {
        if (line.rfind(prompt, 0) == 0 && contains(line, text)) {
            commands.push_back(line.substr(prompt.size()));
        }
    }
    EXPECT_EQ(commands.size(), 1U) << "commands with " << text;
    return Program({"bash", "-c", "exec " + commands.at(0)});
}

// What came again and again stands there once.
std::vector<std::string> changesIn(const std::string& output) {
    std::vector<std::string> lines = linesOf(output);
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

class DocumentedSubscriber : public testsupport::DeviceTest {
  protected:
    void TearDown() override { run->resetRun(); }

    void publish(UpgradeState state) {
        run->state = state;
        run->onProgrameStatusChg();
    }

    // As a run does: again and again, until the subscriber, which joins at some time, shows the message.
    void repeatUntilShown(UpgradeState state, const Program& subscriber, const std::string& shown) {
        for (int i = 0; i < 6000 && !contains(subscriber.outputSoFar(), shown); ++i) {
            publish(state);
            usleep(20000);
        }
        ASSERT_TRUE(contains(subscriber.outputSoFar(), shown)) << subscriber.outputSoFar();
    }

    UpgradeProc* run = UpgradeProc::getInstance();
};

TEST_F(DocumentedSubscriber, prints_the_documented_messages) {
    const Program subscriber = startDocumented("nngcat --sub --dial ");
    repeatUntilShown(UPGRADE_STATE_START, subscriber, kStart);
    repeatUntilShown(UPGRADE_STATE_INPROGRESS_MPU, subscriber, kMainProcessor);
    EXPECT_EQ(changesIn(subscriber.outputSoFar()), (std::vector<std::string>{kStart, kMainProcessor}));
    for (const std::string& message : {kStart, kMainProcessor}) {
        EXPECT_EQ(std::count(documentation().begin(), documentation().end(), message), 1);
    }
}

TEST_F(DocumentedSubscriber, to_one_kind_of_message_gets_no_other_and_stops_after_three) {
    Program subscriber = startDocumented("--subscribe");
    const std::string other(kVelMsgBytes, 'x');
    for (int i = 0; i < 6000 && !subscriber.hasEnded(); ++i) {
        ASSERT_EQ(velPublishMsg(run->node, other.data()), 0);
        publish(UPGRADE_STATE_START);
        usleep(20000);
    }
    const ProgramResult result = subscriber.wait();
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(linesOf(result.out), std::vector<std::string>(3, kStart));
}

}  // namespace
