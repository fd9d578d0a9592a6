// upgradectl watch, with this process as the one that publishes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <regex>
#include <sstream>

#include "common/message_node.h"
#include "tests/tools/device_support.h"
#include "upgrade/upgrade_api.h"

namespace {

using namespace tool_test;
using testsupport::writeFile;
using Lines = std::vector<std::string>;

constexpr const char* kConfig = "/etc/kavro/platform.json";
constexpr int kActivated = 5;

// The published text of a state, written down apart from the library's own record.
std::string messageOf(int state) {
    const std::string head("\x65\x10\0\0\x0c\0\0\0\x02\0\0\0", 12);
    return head + std::string(1, static_cast<char>(state)) + std::string(3, '\0');
}

// A message node of this process.
class Publisher {
  public:
    Publisher() : node(getVelNode(258, "test", 0, 0, 2000)) { EXPECT_NE(node, nullptr); }
    ~Publisher() { velDestroyNode(&node); }
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    void publish(const std::string& message) const { EXPECT_EQ(velPublishMsg(node, message.data()), 0); }
    void publishState(int state) const { publish(messageOf(state)); }

    // As a run does: the same state again and again, until the watch shows so many lines.
    void repeatUntil(int state, const Program& watch, std::size_t lines) const;

  private:
    void* node;
};

// What the watch has shown, without the times.
Lines shownBy(const Program& watch) {
    static const std::regex kLine(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}  (.+))");
    Lines shown;
    std::istringstream text(watch.outputSoFar());
    std::string line;
    while (std::getline(text, line) && !text.eof()) {
        std::smatch parts;
        EXPECT_TRUE(std::regex_match(line, parts, kLine)) << line;
        shown.push_back(parts.size() > 1 ? parts[1].str() : line);
    }
    return shown;
}

// Does something again and again until the watch shows so many lines, for two minutes at most.
void repeat(const std::function<void()>& step, const Program& watch, std::size_t lines) {
    for (int i = 0; i < 6000 && shownBy(watch).size() < lines; ++i) {
        step();
        usleep(20000);
    }
    ASSERT_GE(shownBy(watch).size(), lines) << watch.outputSoFar();
}

void Publisher::repeatUntil(int state, const Program& watch, std::size_t lines) const {
    repeat([&] { publishState(state); }, watch, lines);
}

Program startWatch(const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {UPGRADECTL, "watch"};
    words.insert(words.end(), options.begin(), options.end());
    return Program(words);
}

class Watch : public testsupport::DeviceTest {};

TEST_F(Watch, shows_each_change_of_state_once_and_in_order) {
    const Publisher publisher;
    const Program watch = startWatch();
    publisher.repeatUntil(UPGRADE_STATE_START, watch, 1);
    for (const int state : {UPGRADE_STATE_START, UPGRADE_STATE_INPROGRESS_MPU, UPGRADE_STATE_INPROGRESS_MPU,
                            UPGRADE_STATE_INPROGRESS_MCU, UPGRADE_STATE_FINISH, UPGRADE_STATE_FINISH}) {
        publisher.publishState(state);
    }
    publisher.publishState(kActivated);
    publisher.repeatUntil(UPGRADE_STATE_NONE, watch, 6);
    EXPECT_EQ(shownBy(watch), (Lines{"state START", "state INPROGRESS_MPU", "state INPROGRESS_MCU",
                                     "state FINISH", "activated", "state NONE"}));
}

TEST_F(Watch, shows_the_stages_of_a_run_from_the_log) {
    UpgradeProc* run = UpgradeProc::getInstance();
    const Program watch = startWatch();
    run->stage = UPGRADE_STAGE_INIT;
    repeat([&] { run->onProgrameStatusChg(); }, watch, 2);
    run->state = UPGRADE_STATE_START;
    repeat([&] { run->onProgrameStatusChg(); }, watch, 3);
    run->stage = UPGRADE_STAGE_START;
    repeat([&] { run->onProgrameStatusChg(); }, watch, 4);
    Lines shown = shownBy(watch);
    ASSERT_EQ(shown.size(), 4U);
    std::sort(shown.begin(), shown.begin() + 2);  // which of the two is there first is not settled
    EXPECT_EQ(shown, (Lines{"stage INIT", "state NONE", "state START", "stage START"}));
    run->resetRun();
}

TEST_F(Watch, goes_on_when_the_publisher_ends_and_another_one_starts) {
    const Program watch = startWatch();
    for (std::size_t round = 1; round <= 3; ++round) {
        const Publisher publisher;
        publisher.repeatUntil(UPGRADE_STATE_START, watch, round);
    }
    EXPECT_EQ(shownBy(watch), (Lines{"state START", "state START", "state START"}));
}

TEST_F(Watch, ignores_what_is_no_state_and_shows_the_number_of_one_without_a_name) {
    const Publisher publisher;
    const Program watch = startWatch();
    publisher.repeatUntil(UPGRADE_STATE_START, watch, 1);
    publisher.publish(std::string("\x66\x10\0\0\x0c\0\0\0\x02\0\0\0\x02\0\0\0", kVelMsgBytes));
    publisher.publish(std::string(kVelMsgBytes, '\xFF'));
    publisher.repeatUntil(77, watch, 2);
    EXPECT_EQ(shownBy(watch), (Lines{"state START", "state 77"}));
}

TEST_F(Watch, ends_well_on_a_signal) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const Publisher publisher;
        Program watch = startWatch();
        publisher.repeatUntil(UPGRADE_STATE_START, watch, 1);
        ASSERT_EQ(kill(watch.pid(), signal), 0);
        const ProgramResult result = watch.wait();
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(Watch, ends_after_so_many_lines_on_request) {
    const Publisher publisher;
    Program watch = startWatch({"--count", "2"});
    publisher.repeatUntil(UPGRADE_STATE_START, watch, 1);
    publisher.publishState(UPGRADE_STATE_FAIL);
    EXPECT_EQ(watch.wait().exitCode, 0);
    EXPECT_EQ(shownBy(watch), (Lines{"state START", "state FAIL"}));
}

TEST_F(Watch, ends_with_the_run_on_request_and_tells_its_result) {
    const struct {
        UpgradeState last;
        int exitCode;
    } rows[] = {{UPGRADE_STATE_FINISH, 0}, {UPGRADE_STATE_FAIL, 4}, {UPGRADE_STATE_NONE, 1}};
    for (const auto& row : rows) {
        const Publisher publisher;
        Program watch = startWatch({"--until-end"});
        publisher.repeatUntil(UPGRADE_STATE_NONE, watch, 1);
        publisher.repeatUntil(UPGRADE_STATE_START, watch, 2);
        publisher.publishState(row.last);
        const ProgramResult result = watch.wait();
        EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
        EXPECT_EQ(shownBy(watch).size(), 3U) << result.out;
    }
}

TEST_F(Watch, listens_to_another_address_on_request) {
    writeFile(kConfig, R"({"node": {"address": "ipc:///tmp/other.ipc"}})");
    const Publisher publisher;
    writeFile(kConfig, "{}");
    const Program watch = startWatch({"--address", "ipc:///tmp/other.ipc"});
    publisher.repeatUntil(UPGRADE_STATE_START, watch, 1);
    EXPECT_EQ(shownBy(watch), Lines{"state START"});
}

TEST_F(Watch, without_an_address_says_where_one_is_missing) {
    writeFile(kConfig, "{}");
    const ProgramResult result = upgradectl({"watch"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, kConfig)) << result.err;
    EXPECT_TRUE(contains(result.err, "\"node\" names no \"address\"")) << result.err;
    EXPECT_TRUE(contains(result.err, "next: name it there, or give --address")) << result.err;
}

TEST_F(Watch, says_what_is_no_address) {
    const ProgramResult result = upgradectl({"watch", "--address", "nonsense"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "'nonsense' cannot be listened to")) << result.err;
}

TEST_F(Watch, fails_when_its_output_cannot_be_written) {
    const Publisher publisher;
    for (const char* redirection : {" watch >/dev/full", " watch >&-"}) {
        Program watch({"sh", "-c", std::string("exec ") + UPGRADECTL + redirection});
        siginfo_t ended{};
        while (waitid(P_PID, static_cast<id_t>(watch.pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == 0) {
            publisher.publishState(UPGRADE_STATE_START);
            usleep(20000);
        }
        const ProgramResult result = watch.wait();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(contains(result.err, "standard output cannot be written")) << result.err;
    }
}

}  // namespace
