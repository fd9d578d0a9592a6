// The client against a microcontroller in memory, on a link that loses, damages, delays and doubles.
#include "platform/mcu/uds_client.h"

#include <gtest/gtest.h>

#include "platform/mcu/uds.h"
#include "tests/platform/captured_log.h"
#include "tests/platform/mcu/scripted_link.h"

namespace {

using kavro::Bytes;
using kavro::Frame;
using kavro::UdsAnswer;
using kavro::UdsClient;
using testsupport::loggedWith;
using testsupport::refusal;
using testsupport::Script;
using testsupport::wire;

using Blocks = std::vector<Bytes>;

const Bytes kPresent = {0x3E, 0x00};
const Bytes kRequest = {0x36, 0x05, 0x11};
const Bytes kResponse = {0x76, 0x05};

class Client : public testing::Test {
  protected:
    // Every request but TesterPresent is answered so; `count` counts them, from 1.
    void answerBy(const std::function<Blocks(const Frame& request, int count)>& script) {
        mcu->answer = [script, count = 0](const Frame& request) mutable {
            return request.message == kPresent ? Blocks{wire(request.sequence, {0x7E, 0x00})}
                                               : script(request, ++count);
        };
    }

    UdsAnswer ask(const Bytes& request = kRequest, std::size_t answerBytes = 2) {
        return client.ask(request, answerBytes);
    }

    void expectSuccess() {
        const UdsAnswer answer = ask();
        EXPECT_TRUE(answer.ok()) << answer.error;
        EXPECT_EQ(answer.message, kResponse);
        EXPECT_EQ(answer.refusal, 0);
    }

    void expectFailure(const std::string& error) {
        const UdsAnswer answer = ask();
        EXPECT_FALSE(answer.ok());
        EXPECT_EQ(answer.error, error);
        EXPECT_TRUE(answer.message.empty());
    }

    // The numbers of all requests so far.
    [[nodiscard]] std::vector<int> numbers() const {
        std::vector<int> result;
        for (const Frame& request : mcu->requests) {
            result.push_back(request.sequence);
        }
        return result;
    }

    std::shared_ptr<Script> mcu = std::make_shared<Script>();
    std::vector<bool> goOn;  // what keepGoing says, one after the other; true when used up
    std::size_t asked = 0;
    UdsClient client{std::make_unique<testsupport::ScriptedLink>(mcu), [this] {
                         const std::size_t question = asked++;
                         return question >= goOn.size() || goOn[question];
                     }};
};

TEST_F(Client, a_conversation_begins_with_tester_present_and_number_0) {
    answerBy([](const Frame& request, int) { return Blocks{wire(request.sequence, kResponse)}; });
    expectSuccess();
    expectSuccess();
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, kRequest, kRequest}));
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Client, after_number_255_comes_1) {
    answerBy([](const Frame& request, int) { return Blocks{wire(request.sequence, kResponse)}; });
    for (int count = 0; count < 257; ++count) {
        expectSuccess();
    }
    const std::vector<int> all = numbers();
    EXPECT_EQ(std::vector<int>(all.begin() + 254, all.end()), (std::vector<int>{254, 255, 1, 2}));
}

TEST_F(Client, an_answer_may_arrive_in_pieces_and_with_idle_zeros) {
    answerBy([](const Frame& request, int) {
        Blocks pieces = {Bytes(100, 0)};
        for (const std::uint8_t byte : wire(request.sequence, kResponse)) {
            pieces.push_back({byte});
        }
        return pieces;
    });
    expectSuccess();
}

TEST_F(Client, a_lost_answer_is_asked_for_again_with_the_same_number) {
    answerBy([](const Frame& request, int count) {
        return count < 5 ? Blocks{} : Blocks{wire(request.sequence, kResponse)};
    });
    expectSuccess();
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 1, 1, 1, 1}));
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: no answer within 500 ms, try 2 of 5\n"}));
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: no answer within 500 ms, try 5 of 5\n"}));
}

TEST_F(Client, no_answer_at_all_ends_after_five_tries) {
    answerBy([](const Frame&, int) { return Blocks{}; });
    expectFailure("TransferData: no answer in 5 tries of 500 ms each");
    EXPECT_EQ(mcu->requests.size(), 1U + 5U);
}

TEST_F(Client, a_microcontroller_that_never_answers_is_asked_nothing_but_for_its_presence) {
    mcu->answer = [](const Frame&) { return Blocks{}; };
    expectFailure("TesterPresent: no answer in 5 tries of 500 ms each");
    EXPECT_EQ(mcu->messages(), Blocks(5, kPresent));
}

TEST_F(Client, a_damaged_answer_is_asked_for_again) {
    answerBy([](const Frame& request, int count) {
        Bytes answer = wire(request.sequence, kResponse);
        answer[2] ^= static_cast<std::uint8_t>(count < 3 ? 1 : 0);
        return Blocks{answer};
    });
    expectSuccess();
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 1, 1}));
}

TEST_F(Client, a_late_answer_is_taken_and_its_double_is_ignored) {
    answerBy([](const Frame& request, int count) {
        const Bytes answer = wire(request.sequence, {0x76, request.message[1]});
        return count == 1 ? Blocks{{}, answer} : Blocks{answer};
    });
    EXPECT_EQ(ask({0x36, 1}, 2).message, (Bytes{0x76, 1}));
    EXPECT_EQ(ask({0x36, 2}, 2).message, (Bytes{0x76, 2}));
    EXPECT_EQ(ask({0x36, 3}, 2).message, (Bytes{0x76, 3}));
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 1, 2, 3}));
}

TEST_F(Client, doubled_answers_are_ignored) {
    answerBy([](const Frame& request, int) {
        const Bytes answer = wire(request.sequence, {0x76, request.message[1]});
        return Blocks{answer, answer};
    });
    for (std::uint8_t counter = 0; counter < 20; ++counter) {
        EXPECT_EQ(ask({0x36, counter}, 2).message, (Bytes{0x76, counter}));
    }
    EXPECT_EQ(mcu->requests.size(), 1U + 20U);
}

TEST_F(Client, answers_with_other_numbers_are_ignored) {
    answerBy([](const Frame& request, int) {
        Blocks answers;
        for (const int other : {0, 2, 7, 255}) {
            answers.push_back(wire(static_cast<std::uint8_t>(other), refusal(kRequest, 0x31)));
        }
        answers.push_back(wire(request.sequence, kResponse));
        return answers;
    });
    expectSuccess();
    EXPECT_EQ(mcu->requests.size(), 2U);
}

TEST_F(Client, only_answers_with_other_numbers_are_no_answer) {
    answerBy([](const Frame& request, int) {
        return Blocks{wire(static_cast<std::uint8_t>(request.sequence + 1), kResponse)};
    });
    expectFailure("TransferData: no answer in 5 tries of 500 ms each");
}

TEST_F(Client, what_an_earlier_program_left_unread_is_no_answer) {
    answerBy([](const Frame& request, int) { return Blocks{wire(request.sequence, kResponse)}; });
    mcu->arriving = {wire(0, {0x7E, 0x00}), wire(1, refusal(kRequest, 0x72)), {0x05, 0x11}};
    expectSuccess();
    EXPECT_EQ(mcu->requests.size(), 2U);
}

TEST_F(Client, noise_before_an_answer_is_survived) {
    answerBy([](const Frame& request, int) {
        return Blocks{{0x33, 0x44, 0}, wire(request.sequence, kResponse)};
    });
    expectSuccess();
    EXPECT_EQ(mcu->requests.size(), 2U);
}

// As when nothing is connected to a bus whose lines are pulled up.
TEST_F(Client, a_link_that_carries_nothing_but_ones_is_no_answer) {
    mcu->answer = [](const Frame&) { return Blocks{}; };
    mcu->noise = Bytes(64, 0xFF);
    expectFailure("TesterPresent: no answer in 5 tries of 500 ms each");
}

TEST_F(Client, a_pending_answer_is_awaited) {
    answerBy([](const Frame& request, int) {
        const Bytes pending = wire(request.sequence, refusal(kRequest, 0x78));
        return Blocks{pending, pending, pending, wire(request.sequence, kResponse)};
    });
    expectSuccess();
    EXPECT_EQ(mcu->requests.size(), 2U);
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: response pending, waiting for up to 5000 ms"}));
}

TEST_F(Client, an_answer_that_is_lost_after_it_was_pending_is_asked_for_again) {
    answerBy([](const Frame& request, int count) {
        const Bytes pending = wire(request.sequence, refusal(kRequest, 0x78));
        return count == 1 ? Blocks{pending} : Blocks{wire(request.sequence, kResponse)};
    });
    expectSuccess();
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 1}));
}

TEST_F(Client, an_answer_that_stays_pending_is_an_error) {
    answerBy([](const Frame& request, int) {
        return Blocks(1000, wire(request.sequence, refusal(kRequest, 0x78)));
    });
    expectFailure("TransferData: the answer is still pending after 30 announcements");
}

TEST_F(Client, a_busy_microcontroller_is_asked_again_with_a_new_number) {
    answerBy([](const Frame& request, int count) {
        return Blocks{wire(request.sequence, count <= 10 ? refusal(kRequest, 0x21) : kResponse)};
    });
    expectSuccess();
    EXPECT_EQ(numbers(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: busyRepeatRequest (0x21)"}));
}

TEST_F(Client, a_microcontroller_that_stays_busy_is_an_error) {
    answerBy(
        [](const Frame& request, int) { return Blocks{wire(request.sequence, refusal(kRequest, 0x21))}; });
    expectFailure("TransferData: busyRepeatRequest (0x21)");
    EXPECT_EQ(mcu->requests.size(), 1U + 11U);
}

TEST_F(Client, every_other_negative_response_ends_the_request_with_its_name) {
    answerBy([](const Frame& request, int count) {
        return Blocks{wire(request.sequence, refusal(kRequest, static_cast<std::uint8_t>(count)))};
    });
    for (unsigned code = 1; code <= 255; ++code) {
        if (code == 0x21) {
            (void)ask();  // counts on to 0x22 and ends there
            code = 0x22;
            continue;
        }
        if (code == 0x78) {
            (void)ask();  // pending, then 0x79 .. 0x7C
            code = 0x79;
            continue;
        }
        const UdsAnswer answer = ask();
        EXPECT_EQ(answer.refusal, code);
        EXPECT_FALSE(answer.ok());
    }
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: requestOutOfRange (0x31)"}));
    EXPECT_TRUE(loggedWith(2, {"mcu: TransferData: response code 0xFF (0xFF)"}));
}

TEST_F(Client, an_answer_of_the_wrong_shape_is_an_error) {
    const std::vector<Bytes> answers = {
        {0x75, 0x05},       {0x36, 0x05}, {0x76}, {0x76, 0x06}, {0x7F, 0x36},
        {0x7F, 0x37, 0x31}, {0x7F},       {0x00}, {0xFF},       {0x7F, 0x36, 0x31, 0},
    };
    for (const Bytes& wrong : answers) {
        answerBy([&](const Frame& request, int) { return Blocks{wire(request.sequence, wrong)}; });
        const UdsAnswer answer = ask();
        EXPECT_FALSE(answer.ok());
        EXPECT_EQ(answer.refusal, 0);
        EXPECT_NE(answer.error.find("does not belong to the request 36 05 11, or is too short"),
                  std::string::npos)
            << answer.error;
    }
}

TEST_F(Client, an_answer_shorter_than_needed_is_an_error_and_a_longer_one_is_not) {
    for (std::size_t size = 1; size <= 8; ++size) {
        Bytes response = {0x71, 0x01, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00};
        response.resize(size);
        answerBy([&](const Frame& request, int) { return Blocks{wire(request.sequence, response)}; });
        EXPECT_EQ(ask({0x31, 0x01, 0x02, 0x02}, 5).ok(), size >= 5) << size;
    }
}

TEST_F(Client, a_response_must_repeat_session_kind_identifier_and_routine) {
    struct {
        Bytes request;
        Bytes wrong;
    } const rows[] = {
        {{0x10, 0x02}, {0x50, 0x01}},
        {{0x11, 0x01}, {0x51, 0x02}},
        {{0x22, 0xF1, 0x89}, {0x62, 0xF1, 0x86, 0, 0, 0, 1}},
        {{0x31, 0x01, 0xFF, 0x00}, {0x71, 0x01, 0xFF, 0x01}},
        {{0x31, 0x01, 0x02, 0x01}, {0x71, 0x02, 0x02, 0x01}},
        {{0x36, 0xFF, 1}, {0x76, 0x00}},
    };
    for (const auto& row : rows) {
        answerBy([&](const Frame& request, int) { return Blocks{wire(request.sequence, row.wrong)}; });
        EXPECT_FALSE(ask(row.request, 1).ok()) << int{row.request[0]};
    }
}

TEST_F(Client, a_broken_link_is_an_error_at_once) {
    answerBy([&](const Frame&, int) {
        mcu->broken = true;
        return Blocks{};
    });
    expectFailure("TransferData: the link is broken");
    EXPECT_EQ(mcu->requests.size(), 2U);
}

TEST_F(Client, nothing_is_sent_when_it_must_not_go_on) {
    mcu->answer = [](const Frame&) { return Blocks{}; };
    goOn = {false};
    expectFailure("TesterPresent: given up");
    EXPECT_TRUE(mcu->requests.empty());
}

TEST_F(Client, is_given_up_before_each_request_and_each_try) {
    answerBy([](const Frame& request, int count) {
        return count % 2 == 1 ? Blocks{} : Blocks{wire(request.sequence, kResponse)};
    });
    goOn = {true, false, true, false};
    expectFailure("TransferData: given up");
    EXPECT_EQ(mcu->requests.size(), 1U);
    expectFailure("TransferData: given up");
    EXPECT_EQ(mcu->requests.size(), 2U);
    expectSuccess();
}

TEST_F(Client, is_given_up_while_an_answer_is_pending) {
    answerBy([](const Frame& request, int) {
        const Bytes pending = wire(request.sequence, refusal(kRequest, 0x78));
        return Blocks{pending, pending, wire(request.sequence, kResponse)};
    });
    goOn = {true, true, true, false};
    expectFailure("TransferData: given up");
}

TEST_F(Client, a_last_request_is_sent_once_whatever_keep_going_says) {
    answerBy([](const Frame& request, int) { return Blocks{wire(request.sequence, kResponse)}; });
    expectSuccess();
    goOn.assign(100, false);
    mcu->answer = [](const Frame&) { return Blocks{}; };
    client.leave({0x11, 0x01});
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, kRequest, {0x11, 0x01}}));
}

}  // namespace
