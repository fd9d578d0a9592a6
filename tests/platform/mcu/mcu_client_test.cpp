// What is asked of the microcontroller, message by message, and what becomes of each that goes wrong.
#include "platform/mcu/mcu_client.h"

#include <gtest/gtest.h>

#include "base/mcu_image.h"
#include "platform/mcu/uds.h"
#include "tests/platform/captured_log.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/platform/mcu/scripted_link.h"

namespace {

namespace uds = kavro::uds;
using kavro::Bytes;
using kavro::Frame;
using kavro::McuClient;
using testsupport::loggedWith;
using testsupport::refusal;
using testsupport::Script;
using testsupport::wire;

using Blocks = std::vector<Bytes>;

const Bytes kPresent = {0x3E, 0x00};
const Bytes kReset = {0x11, 0x01};
const std::string kAddress = "unix:/mcu";

// Blocks of 10 bytes: 8 of them data.
const Bytes kOffer = {0x74, 0x20, 0x00, 0x0A};

Bytes positive(const Bytes& request) {
    switch (request[0]) {
        case 0x10:
            return {0x50, request[1], 0x00, 0x32, 0x01, 0xF4};
        case 0x22:
            return {0x62, 0xF1, 0x89, 0x00, 0x00, 0x00, 0x09};
        case 0x31:
            return {0x71, request[1], request[2], request[3], 0x00};
        case 0x34:
            return kOffer;
        case 0x37:
            return {0x77};
        default:
            return {static_cast<std::uint8_t>(request[0] + 0x40), request[1]};
    }
}

// Two sections in RAM; an application with a gap of two bytes.
kavro::McuFirmware firmware() {
    return {
        {{0x20000000, {1, 2, 3}}, {0x20000100, {4}}},
        {{0x8000, {'K', 'A', 'V', 'R', 'O', 'M', 'C', 'U', 9, 0, 0, 0, 0, 0, 0, 0, 0xAA}}, {0x8013, {0xBB}}}};
}

// The CRCs are those of another implementation.
const Blocks kProgramming = {
    kPresent,
    {0x10, 0x02},
    {0x34, 0x00, 0x44, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03},
    {0x36, 0x01, 1, 2, 3},
    {0x37},
    {0x34, 0x00, 0x44, 0x20, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01},
    {0x36, 0x01, 4},
    {0x37},
    {0x31, 0x01, 0x02, 0x02, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x55, 0xBC, 0x80, 0x1D},
    {0x31, 0x01, 0x02, 0x02, 0x20, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x01, 0xD5, 0x6F, 0x2B, 0x94},
    {0x31, 0x01, 0xFF, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00, 0x07, 0x80, 0x00},
    {0x34, 0x00, 0x44, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x11},
    {0x36, 0x01, 'K', 'A', 'V', 'R', 'O', 'M', 'C', 'U'},
    {0x36, 0x02, 9, 0, 0, 0, 0, 0, 0, 0},
    {0x36, 0x03, 0xAA},
    {0x37},
    {0x34, 0x00, 0x44, 0x00, 0x00, 0x80, 0x13, 0x00, 0x00, 0x00, 0x01},
    {0x36, 0x01, 0xBB},
    {0x37},
    {0x31, 0x01, 0x02, 0x02, 0x00, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x14, 0xE7, 0xA0, 0x9E, 0xB2},
};
constexpr std::size_t kSession =
    1;  // before it nothing was changed, from it on a failure is followed by a reset

const Blocks kMakingRun = {
    kPresent,
    {0x31, 0x01, 0xFF, 0x01},
    kReset,
    {0x22, 0xF1, 0x89},
};

class Mcu : public testing::Test {
  protected:
    // Every request is answered positively but the one of that index, counted from 0.
    void answerAt(std::size_t index, const std::function<Blocks(const Frame& request)>& other) {
        mcu->requests.clear();
        mcu->arriving.clear();
        mcu->broken = false;
        mcu->answer = [this, index, other](const Frame& request) {
            const Bytes& wanted = request.message;
            // A repeated request is the one that it repeats.
            const auto& all = mcu->requests;
            std::size_t count = 0;
            for (std::size_t place = 1; place < all.size(); ++place) {
                count += all[place].sequence != all[place - 1].sequence ? 1 : 0;
            }
            return count == index ? other(request) : Blocks{wire(request.sequence, positive(wanted))};
        };
    }
    void answerAll() { answerAt(SIZE_MAX, nullptr); }

    McuClient client(const kavro::KeepGoing& keepGoing = {}) {
        return {kAddress, std::make_unique<testsupport::ScriptedLink>(mcu), keepGoing};
    }

    bool program(const kavro::KeepGoing& keepGoing = {}) {
        error.clear();
        return client(keepGoing).program(firmware(), error);
    }

    bool makeRun(const kavro::KeepGoing& keepGoing = {}) {
        error.clear();
        return client(keepGoing).makeRun(9, error);
    }

    void expectNotProgrammed(std::size_t index) {
        EXPECT_FALSE(program()) << index;
        EXPECT_EQ(error.find(kAddress + ": "), 0U) << error;
        EXPECT_EQ(mcu->requests.back().message == kReset, index > kSession) << index;
    }

    std::shared_ptr<Script> mcu = std::make_shared<Script>();
    std::string error;
};

TEST_F(Mcu, is_programmed_by_these_messages) {
    answerAll();
    EXPECT_TRUE(program()) << error;
    EXPECT_EQ(mcu->messages(), kProgramming);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mcu, is_made_to_run_by_these_messages) {
    answerAll();
    EXPECT_TRUE(makeRun()) << error;
    EXPECT_EQ(mcu->messages(), kMakingRun);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST_F(Mcu, refusal_of_any_message_of_programming_fails_it) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        for (const std::uint8_t code : Bytes{0x11, 0x22, 0x31, 0x72, 0x7F}) {
            answerAt(index, [&](const Frame& request) {
                return Blocks{wire(request.sequence, refusal(request.message, code))};
            });
            expectNotProgrammed(index);
            EXPECT_NE(error.find(uds::serviceName(kProgramming[index][0])), std::string::npos) << error;
            EXPECT_NE(error.find(uds::negativeResponseName(code)), std::string::npos) << error;
        }
    }
}

TEST_F(Mcu, silence_at_any_message_of_programming_fails_it) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        answerAt(index, [](const Frame&) { return Blocks{}; });
        expectNotProgrammed(index);
        EXPECT_NE(error.find("no answer in 5 tries"), std::string::npos) << error;
    }
}

TEST_F(Mcu, one_lost_answer_at_any_message_is_survived) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        answerAt(index, [first = true](const Frame& request) mutable {
            return std::exchange(first, false) ? Blocks{}
                                               : Blocks{wire(request.sequence, positive(request.message))};
        });
        EXPECT_TRUE(program()) << error;
        EXPECT_EQ(mcu->requests.size(), kProgramming.size() + 1);
    }
}

TEST_F(Mcu, answer_to_something_else_at_any_message_of_programming_fails_it) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        answerAt(index, [](const Frame& request) {
            return Blocks{wire(request.sequence, {0x6E, 1, 2, 3, 4})};
        });
        expectNotProgrammed(index);
        EXPECT_NE(error.find("the answer 6E 01 02 03 04 does not belong to the request"), std::string::npos)
            << error;
    }
}

TEST_F(Mcu, answer_that_is_cut_short_at_any_message_of_programming_fails_it) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        if (positive(kProgramming[index]).size() == 1) {
            continue;
        }
        answerAt(index, [](const Frame& request) {
            Bytes answer = positive(request.message);
            answer.pop_back();
            return Blocks{wire(request.sequence, answer)};
        });
        expectNotProgrammed(index);
    }
}

TEST_F(Mcu, link_that_breaks_at_any_message_of_programming_fails_it) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        answerAt(index, [&](const Frame&) {
            mcu->broken = true;
            return Blocks{};
        });
        EXPECT_FALSE(program()) << index;
        EXPECT_NE(error.find("the link is broken"), std::string::npos) << error;
    }
}

TEST_F(Mcu, programming_may_be_given_up_before_any_message) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        answerAll();
        std::size_t asked = 0;
        EXPECT_FALSE(program([&] { return asked++ < index; })) << index;
        EXPECT_NE(error.find(": given up"), std::string::npos) << error;
        Blocks expected(kProgramming.begin(), kProgramming.begin() + static_cast<long>(index));
        if (index > kSession) {
            expected.push_back(kReset);
        }
        EXPECT_EQ(mcu->messages(), expected) << index;
    }
}

TEST_F(Mcu, status_other_than_correct_fails_programming) {
    for (std::size_t index = 0; index < kProgramming.size(); ++index) {
        if (kProgramming[index][0] != 0x31) {
            continue;
        }
        answerAt(index, [](const Frame& request) {
            Bytes answer = positive(request.message);
            answer.back() = 1;
            return Blocks{wire(request.sequence, answer)};
        });
        expectNotProgrammed(index);
    }
    EXPECT_EQ(
        error,
        kAddress + ": checking the application: the microcontroller's memory does not hold what was sent");
}

TEST_F(Mcu, refused_session_says_that_the_programming_link_is_off) {
    answerAt(1, [](const Frame& request) {
        return Blocks{wire(request.sequence, refusal(request.message, 0x22))};
    });
    EXPECT_FALSE(program());
    EXPECT_EQ(
        error,
        kAddress +
            ": entering the programming session: DiagnosticSessionControl: conditionsNotCorrect (0x22): "
            "the programming link is off, velSpiDevCtrl switches it on");
}

TEST_F(Mcu, error_names_what_was_done) {
    answerAt(2, [](const Frame& request) {
        return Blocks{wire(request.sequence, refusal(request.message, 0x31))};
    });
    EXPECT_FALSE(program());
    EXPECT_EQ(error, kAddress + ": loading the flash driver: RequestDownload: requestOutOfRange (0x31)");
    EXPECT_TRUE(loggedWith(2, {"mcu: RequestDownload: requestOutOfRange (0x31)"}));
}

TEST_F(Mcu, offered_length_of_blocks_must_hold_data) {
    for (const Bytes& offer : Blocks{{0x74, 0x20, 0x00, 0x00},
                                     {0x74, 0x20, 0x00, 0x02},
                                     {0x74, 0x10, 0x00, 0x0A},
                                     {0x74, 0x40, 0x00, 0x00, 0x00, 0x0A}}) {
        answerAt(2, [&](const Frame& request) { return Blocks{wire(request.sequence, offer)}; });
        EXPECT_FALSE(program());
        EXPECT_EQ(
            error,
            kAddress + ": loading the flash driver: the microcontroller offers no usable length of blocks");
    }
}

TEST_F(Mcu, blocks_are_no_longer_than_a_frame_takes_and_their_counter_wraps_to_0) {
    const std::size_t bytes = kavro::kMcuApplicationBytes;
    auto application = testsupport::applicationOf(9, bytes - kavro::kMcuHeaderBytes);
    for (const std::uint16_t offered : std::vector<std::uint16_t>{0xFFFF, 0x0802}) {
        const std::size_t data = std::min<std::size_t>(offered, kavro::kMaxMessageBytes) - 2;
        answerAll();
        const auto plain = mcu->answer;
        mcu->answer = [&](const Frame& request) {
            if (request.message[0] != 0x34) {
                return plain(request);
            }
            Bytes offer = {0x74, 0x20};
            uds::appendUint16(offer, offered);
            return Blocks{wire(request.sequence, offer)};
        };
        ASSERT_TRUE(client().program({testsupport::flashDriver(), application}, error)) << error;
        Bytes received;
        std::uint8_t counter = 0;
        for (const Bytes& message : mcu->messages()) {
            if (message[0] == 0x34) {
                received.clear();
                counter = 0;
            } else if (message[0] == 0x36) {
                EXPECT_EQ(message[1], ++counter);
                EXPECT_LE(message.size(), data + 2);
                received.insert(received.end(), message.begin() + 2, message.end());
            }
        }
        EXPECT_TRUE(received == application[0].bytes);
    }
}

TEST_F(Mcu, firmware_that_does_not_fit_is_refused_before_anything_is_sent) {
    answerAll();
    const auto good = firmware();
    const struct {
        kavro::McuFirmware firmware;
        const char* reason;
    } rows[] = {
        {{{}, good.application}, "flash driver: holds no data"},
        {{good.flashDriver, {}}, "application: holds no data"},
        {{good.application, good.application},
         "flash driver: data at 0x00008000..0x00008010 is outside of 0x20000000..0x2000FFFF"},
        {{good.flashDriver, good.flashDriver},
         "application: data at 0x20000000..0x20000002 is outside of 0x00008000..0x0007FFFF"},
        {{good.flashDriver, {{0x8000, Bytes(16, 0)}}},
         "application: no valid application header at 0x00008000"},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(client().program(row.firmware, error));
        EXPECT_EQ(error, row.reason);
    }
    EXPECT_TRUE(mcu->requests.empty());
}

TEST_F(Mcu, refusal_or_silence_before_the_restart_fails_it) {
    for (std::size_t index = 0; index < 3; ++index) {
        answerAt(index, [](const Frame& request) {
            return Blocks{wire(request.sequence, refusal(request.message, 0x24))};
        });
        EXPECT_FALSE(makeRun()) << index;
        EXPECT_NE(error.find("requestSequenceError (0x24)"), std::string::npos) << error;
        answerAt(index, [](const Frame&) { return Blocks{}; });
        EXPECT_FALSE(makeRun()) << index;
        EXPECT_EQ(mcu->requests.size(), index + 5);
    }
}

TEST_F(Mcu, application_that_is_not_accepted_is_not_started) {
    answerAt(1, [](const Frame& request) {
        return Blocks{wire(request.sequence, {0x71, 0x01, 0xFF, 0x01, 0x01})};
    });
    EXPECT_FALSE(makeRun());
    EXPECT_EQ(error,
              kAddress + ": making the application the one to run: the microcontroller does not accept it");
    EXPECT_EQ(mcu->requests.size(), 2U);
}

TEST_F(Mcu, start_is_awaited_while_there_is_no_version_and_no_answer) {
    answerAll();
    const auto plain = mcu->answer;
    mcu->answer = [&, count = 0](const Frame& request) mutable {
        if (request.message[0] != 0x22 || ++count > 8) {
            return plain(request);
        }
        return count == 1 || count > 6 ? Blocks{wire(request.sequence, refusal(request.message, 0x22))}
                                       : Blocks{};
    };
    EXPECT_TRUE(makeRun()) << error;
}

TEST_F(Mcu, application_that_never_starts_fails_it) {
    answerAll();
    const auto plain = mcu->answer;
    mcu->answer = [&](const Frame& request) {
        return request.message[0] == 0x22 ? Blocks{wire(request.sequence, refusal(request.message, 0x22))}
                                          : plain(request);
    };
    EXPECT_FALSE(makeRun());
    EXPECT_EQ(error,
              kAddress +
                  ": reading the version: the microcontroller runs no application: ReadDataByIdentifier: "
                  "conditionsNotCorrect (0x22)");
}

TEST_F(Mcu, other_version_than_expected_fails_it) {
    answerAll();
    EXPECT_FALSE(client().makeRun(10, error));
    EXPECT_EQ(
        error,
        kAddress +
            ": starting the application: the microcontroller reports version 9, not the application's 10");
}

TEST_F(Mcu, start_may_be_given_up_before_any_message) {
    for (std::size_t index = 0; index < kMakingRun.size(); ++index) {
        answerAll();
        EXPECT_FALSE(makeRun([&] { return mcu->requests.size() < index; })) << index;
        EXPECT_NE(error.find(": given up"), std::string::npos) << error;
        EXPECT_EQ(mcu->requests.size(), index);
    }
}

TEST_F(Mcu, version_is_that_of_the_application) {
    answerAll();
    EXPECT_EQ(client().version(error), 9);
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, {0x22, 0xF1, 0x89}}));
}

TEST_F(Mcu, version_beyond_2147483647_is_none) {
    answerAt(1, [](const Frame& request) {
        return Blocks{wire(request.sequence, {0x62, 0xF1, 0x89, 0x80, 0, 0, 0})};
    });
    EXPECT_EQ(client().version(error), std::nullopt);
    EXPECT_EQ(error, kAddress + ": reading the version: 2147483648 is no version");
    answerAt(1, [](const Frame& request) {
        return Blocks{wire(request.sequence, {0x62, 0xF1, 0x89, 0x7F, 0xFF, 0xFF, 0xFF})};
    });
    EXPECT_EQ(client().version(error), 2147483647);
}

TEST_F(Mcu, programming_link_is_switched_by_a_routine) {
    answerAll();
    EXPECT_TRUE(client().setLink(true, error)) << error;
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, {0x31, 0x01, 0x02, 0x01}}));
    answerAll();
    EXPECT_TRUE(client().setLink(false, error)) << error;
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, {0x31, 0x02, 0x02, 0x01}}));
}

TEST_F(Mcu, reset_of_the_main_processor_is_a_routine) {
    answerAll();
    EXPECT_TRUE(client().requestReset(error)) << error;
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, {0x31, 0x01, 0x02, 0x10}}));
}

TEST_F(Mcu, probe_finds_one_without_an_application) {
    answerAll();
    EXPECT_TRUE(client().probe(error)) << error;
    EXPECT_EQ(mcu->messages(), (Blocks{kPresent, kPresent}));
}

TEST_F(Mcu, that_does_not_answer_fails_every_operation) {
    mcu->answer = [](const Frame&) { return Blocks{}; };
    EXPECT_FALSE(client().probe(error));
    EXPECT_FALSE(client().setLink(true, error));
    EXPECT_FALSE(client().setLink(false, error));
    EXPECT_EQ(client().version(error), std::nullopt);
    EXPECT_FALSE(client().requestReset(error));
    EXPECT_EQ(
        error,
        kAddress +
            ": requesting a reset of the main processor: TesterPresent: no answer in 5 tries of 500 ms each");
    EXPECT_EQ(mcu->messages(), Blocks(25, kPresent));
}

TEST(McuConfig, must_name_a_link_of_a_known_form) {
    kavro::PlatformConfig config;
    std::string error;
    EXPECT_FALSE(kavro::checkMcuConfig(config, error));
    EXPECT_EQ(error, "/etc/kavro/platform.json: mcu.link is missing");
    EXPECT_EQ(kavro::connectMcu(config, error), nullptr);
    config.fault = "is no JSON object";
    EXPECT_FALSE(kavro::checkMcuConfig(config, error));
    EXPECT_EQ(error, "/etc/kavro/platform.json: is no JSON object");
    config.fault.clear();
    config.wrongMembers = {"mpu.bootloader must be a string", "mcu.link must be a string"};
    EXPECT_FALSE(kavro::checkMcuConfig(config, error));
    EXPECT_EQ(error, "/etc/kavro/platform.json: mcu.link must be a string");
    config.mcuLink = "tcp:/dev/ttyS0";
    EXPECT_FALSE(kavro::checkMcuConfig(config, error));
    EXPECT_EQ(error,
              "/etc/kavro/platform.json: mcu.link: \"tcp:/dev/ttyS0\" is none of "
              "\"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\"");
    for (const char* link : {"spidev:/dev/spidev1.0", "serial:/dev/ttyS1", "unix:/dev/kavro-mcu/link"}) {
        config.mcuLink = link;
        EXPECT_TRUE(kavro::checkMcuConfig(config, error)) << error;
    }
}

}  // namespace
