#include "twin/emulator/link_end.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/hex_text.h"
#include "tests/support/temp_dir.h"
#include "twin/emulator/application.h"

namespace {

using namespace kavro;
using namespace kavro::emulator;
using testsupport::bytesOf;
using testsupport::hexOf;

class Link : public testing::Test {
  protected:
    void SetUp() override { powerOn({}); }

    void powerOn(const std::vector<std::string>& faultTexts) {
        std::string error;
        std::vector<Fault> list;
        for (const std::string& text : faultTexts) {
            const std::optional<Fault> fault = parseFault(text, error);
            ASSERT_TRUE(fault) << error;
            list.push_back(*fault);
        }
        flash = std::make_unique<FlashMemory>();
        ASSERT_EQ(FlashMemory::format(path, flashWith(minimalApplication(8)), error), Opening::kOpened);
        ASSERT_EQ(flash->open(path, error), Opening::kOpened) << error;
        const auto tell = [this](const std::string& line) { log += line + "\n"; };
        faults = std::make_unique<FaultPlan>(list);
        mcu = std::make_unique<Microcontroller>(
            *flash, Surroundings{[this] { ++resets; }, [this] { return faults->nextBlock(); }, tell});
        end = std::make_unique<LinkEnd>(*mcu, *faults, tell);
        log.clear();
    }

    std::vector<Output> take(std::uint8_t sequence, const std::string& request) {
        return end->take({sequence, bytesOf(request)}, now);
    }

    // "SEQUENCE: MESSAGE" of each frame, with the milliseconds until it is due when there are any.
    std::vector<std::string> ask(std::uint8_t sequence, const std::string& request) {
        std::vector<std::string> answers;
        for (const Output& output : take(sequence, request)) {
            const auto late = std::chrono::duration_cast<Milliseconds>(output.due - now).count();
            std::string text = late > 0 ? "+" + std::to_string(late) + " " : "";
            FrameReader reader;
            for (const std::uint8_t byte : output.bytes) {
                if (const std::optional<Frame> frame = reader.take(byte)) {
                    text += std::to_string(frame->sequence) + ": " + hexOf(frame->message);
                }
            }
            answers.push_back(reader.damagedFrames() > 0 ? text + "damaged" : text);
        }
        return answers;
    }

    using Answers = std::vector<std::string>;

    kavro_test::TempDir directory;
    const std::string path = directory / "flash.bin";
    std::unique_ptr<FlashMemory> flash;
    std::unique_ptr<FaultPlan> faults;
    std::unique_ptr<Microcontroller> mcu;
    std::unique_ptr<LinkEnd> end;
    Time now{std::chrono::hours(1)};
    std::string log;
    int resets = 0;
};

constexpr const char* kPresent = "3E 00";
constexpr const char* kResetMain = "31 01 02 10";

TEST_F(Link, an_answer_carries_the_number_of_its_request) {
    EXPECT_EQ(ask(77, kPresent), Answers{"77: 7E 00"});
}

TEST_F(Link, a_request_that_is_sent_again_is_answered_and_not_carried_out_again) {
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
    EXPECT_EQ(resets, 1);
    EXPECT_EQ(ask(6, kResetMain), Answers{"6: 71 01 02 10"});
    EXPECT_EQ(resets, 2);
}

TEST_F(Link, a_negative_answer_is_repeated_too) {
    EXPECT_EQ(ask(5, "10 02"), Answers{"5: 7F 10 22"});
    EXPECT_EQ(ask(5, "10 02"), Answers{"5: 7F 10 22"});
}

TEST_F(Link, number_0_is_always_carried_out) {
    EXPECT_EQ(ask(0, kResetMain), Answers{"0: 71 01 02 10"});
    EXPECT_EQ(ask(0, kResetMain), Answers{"0: 71 01 02 10"});
    EXPECT_EQ(resets, 2);
}

TEST_F(Link, a_number_is_forgotten_at_a_start) {
    EXPECT_EQ(ask(5, "11 01"), Answers{"5: 51 01"});
    now += Milliseconds(1000);
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
    EXPECT_EQ(resets, 1);
}

TEST_F(Link, nothing_is_heard_during_a_start) {
    EXPECT_EQ(ask(5, "11 01"), Answers{"5: 51 01"});
    now += Milliseconds(30);
    EXPECT_EQ(ask(6, kPresent), Answers{});
    now += Milliseconds(40);
    EXPECT_EQ(ask(6, kPresent), Answers{"6: 7E 00"});
}

TEST_F(Link, a_dropped_request_is_not_carried_out) {
    powerOn({"drop=1"});
    EXPECT_EQ(ask(5, kResetMain), Answers{});
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
    EXPECT_EQ(resets, 1);
}

TEST_F(Link, a_lost_answer_is_had_by_asking_again) {
    powerOn({"lose=1"});
    EXPECT_EQ(ask(5, kResetMain), Answers{});
    EXPECT_EQ(resets, 1);
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
    EXPECT_EQ(resets, 1);
}

TEST_F(Link, a_repeated_request_counts_for_the_faults) {
    powerOn({"lose@31=1..2"});
    EXPECT_EQ(ask(5, kResetMain), Answers{});
    EXPECT_EQ(ask(5, kResetMain), Answers{});
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 71 01 02 10"});
}

TEST_F(Link, a_damaged_answer_differs_in_one_bit) {
    powerOn({"damage=1"});
    const Bytes good = encodeFrame({5, bytesOf("7E 00")});
    const std::vector<Output> outputs = take(5, kPresent);
    ASSERT_EQ(outputs.size(), 1U);
    ASSERT_EQ(outputs[0].bytes.size(), good.size());
    int bits = 0;
    for (std::size_t index = 0; index < good.size(); ++index) {
        bits += __builtin_popcount(static_cast<unsigned>(good[index] ^ outputs[0].bytes[index]));
    }
    EXPECT_EQ(bits, 1);
    EXPECT_EQ(ask(5, kPresent), Answers{"5: 7E 00"});
}

TEST_F(Link, every_length_of_answer_can_be_damaged) {
    powerOn({"damage=1.."});
    for (const char* request : {"37", kPresent, "10 01", "22 F1 89", kResetMain}) {
        EXPECT_EQ(ask(0, request), Answers{"damaged"}) << request;
    }
}

TEST_F(Link, a_delayed_answer_is_late) {
    powerOn({"delay=1:250"});
    EXPECT_EQ(ask(5, kPresent), Answers{"+250 5: 7E 00"});
    EXPECT_EQ(ask(6, kPresent), Answers{"6: 7E 00"});
}

TEST_F(Link, response_pending_comes_before_the_answer) {
    powerOn({"pending=1:2"});
    EXPECT_EQ(ask(5, kPresent), (Answers{"5: 7F 3E 78", "+300 5: 7F 3E 78", "+600 5: 7E 00"}));
}

TEST_F(Link, a_refused_request_is_not_carried_out) {
    powerOn({"refuse=1:31", "busy=2"});
    EXPECT_EQ(ask(5, kResetMain), Answers{"5: 7F 31 31"});
    EXPECT_EQ(ask(6, kResetMain), Answers{"6: 7F 31 21"});
    EXPECT_EQ(resets, 0);
    EXPECT_EQ(ask(6, kResetMain), Answers{"6: 7F 31 21"}) << "the same request has the same answer";
    EXPECT_EQ(ask(7, kResetMain), Answers{"7: 71 01 02 10"});
}

TEST_F(Link, a_long_delay_does_not_cost_the_session) {
    powerOn({"delay@10=1:6000"});
    EXPECT_EQ(ask(1, "31 01 02 01"), Answers{"1: 71 01 02 01"});
    EXPECT_EQ(ask(2, "10 02"), Answers{"+6000 2: 50 02 00 32 01 F4"});
    now += Milliseconds(6000);
    EXPECT_EQ(ask(3, "22 F1 86"), Answers{"3: 62 F1 86 02"});
}

TEST_F(Link, without_power_nothing_is_answered) {
    powerOn({"power-loss=1"});
    EXPECT_EQ(ask(1, "31 01 02 01"), Answers{"1: 71 01 02 01"});
    EXPECT_EQ(ask(2, "10 02"), Answers{"2: 50 02 00 32 01 F4"});
    EXPECT_EQ(ask(3, "34 00 44 20 00 00 00 00 00 00 04"), Answers{"3: 74 20 04 02"});
    EXPECT_EQ(ask(4, "36 01 01 02 03 04"), Answers{});
    EXPECT_EQ(ask(4, "36 01 01 02 03 04"), Answers{});
    EXPECT_EQ(ask(0, kPresent), Answers{});
}

TEST_F(Link, the_log_names_requests_answers_and_faults) {
    powerOn({"lose=3", "drop=4"});
    ask(1, kPresent);
    ask(2, "10 02");
    ask(3, kPresent);
    ask(4, kPresent);
    ask(3, kPresent);
    ask(5, "36 01 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F");
    EXPECT_EQ(log,
              "request 1 TesterPresent: 3E 00\n"
              "answer  1 TesterPresent: 7E 00\n"
              "request 2 DiagnosticSessionControl: 10 02\n"
              "answer  2 DiagnosticSessionControl: conditionsNotCorrect (7F 10 22)\n"
              "request 3 TesterPresent: 3E 00\n"
              "answer  3 TesterPresent: 7E 00 [fault: lost]\n"
              "unheard 4 TesterPresent: 3E 00 [fault: drop]\n"
              "request 3 TesterPresent: again\n"
              "answer  3 TesterPresent: 7E 00\n"
              "request 5 TransferData: 36 01 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D .. (18 bytes)\n"
              "answer  5 TransferData: serviceNotSupportedInActiveSession (7F 36 7F)\n");
}

}  // namespace
