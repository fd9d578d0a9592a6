// The fakes are trusted by every other test, so what makes a check fail is tested here.
#include "tests/support/fake_services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <memory>
#include <thread>
#include <vector>

#include "common/cancellation.h"
#include "common/flash_driver.h"
#include "common/message_node.h"
#include "common/utility.h"

namespace {

using testing::ElementsAre;

class FakeServices : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(FakeServices, lines_are_recorded_with_level_and_thread) {
    printLog(2, "a %d %s\n", 7, "b");
    ASSERT_EQ(fake::log().lines().size(), 1U);
    EXPECT_TRUE(fake::logged(2, "a 7 b\n"));
    EXPECT_FALSE(fake::logged(1, "a 7 b\n"));
    EXPECT_FALSE(fake::logged(2, "a 7 b"));
    EXPECT_FALSE(fake::log().lines().front().threadName.empty());
}

TEST_F(FakeServices, error_lines_match_with_any_or_one_line_number) {
    printLog(1, "file:%s, func:%s line:%d size %d\n", "unit", "work", 31, 4);
    EXPECT_TRUE(fake::loggedError("unit", "work", "size 4\n"));
    EXPECT_TRUE(fake::loggedError("unit", "work", "size 4\n", 31));
    EXPECT_FALSE(fake::loggedError("unit", "work", "size 4\n", 3));
    EXPECT_FALSE(fake::loggedError("unit", "work", "size 4"));
    EXPECT_FALSE(fake::loggedError("unit", "other", "size 4\n"));
}

TEST_F(FakeServices, step_errors_need_the_same_number_twice) {
    printLog(1, "file:unit, func:work line:12 unit work 13 error!!!\n");
    EXPECT_FALSE(fake::loggedStepError("unit", "work"));
    printLog(1, "file:unit, func:work line:12 unit work 12 error!!!\n");
    EXPECT_TRUE(fake::loggedStepError("unit", "work"));
    EXPECT_TRUE(fake::loggedStepError("unit", "work", 12));
    EXPECT_FALSE(fake::loggedStepError("unit", "work", 13));
}

TEST_F(FakeServices, messages_keep_handle_and_words) {
    const unsigned char message[16] = {0x65, 0x10, 0, 0, 12, 0, 0, 0, 2, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff};
    EXPECT_EQ(velPublishMsg(fake::node().handle(), message), 0);
    EXPECT_LT(velPublishMsg(nullptr, message), 0);
    ASSERT_EQ(fake::node().count(), 2U);
    EXPECT_EQ(fake::node().messages()[0].word(0), 0x1065);
    EXPECT_EQ(fake::node().messages()[0].handle, fake::node().handle());
    EXPECT_EQ(fake::node().messages()[1].handle, nullptr);
    EXPECT_THAT(fake::node().states(), ElementsAre(-2, -2));
}

TEST_F(FakeServices, calls_are_in_one_order_across_all_services) {
    fake::mcu().upgrade.returns(-3);
    fake::spi().runs([](bool on) { return on ? -1 : 0; });
    const auto mpu = std::make_unique<UpgradeMpu>();
    const auto mcu = std::make_unique<UpgradeMcu>();
    EXPECT_EQ(mpu->preUpgrade("/raw", true, false), 0);
    EXPECT_EQ(velSpiDevCtrl(fake::node().handle(), true), -1);
    EXPECT_EQ(mcu->upgrade(), -3);
    EXPECT_LT(velGetMcuVersion(nullptr), 0);
    EXPECT_THAT(fake::calls().texts(),
                ElementsAre("mpu()", "mcu()", "mpu.preUpgrade(/raw, true, false)", "spi(true)",
                            "mcu.upgrade()", "mcuVersion() on another node"));
}

TEST_F(FakeServices, a_pending_cancel_acts_in_a_log_call_unless_it_is_held_off) {
    bool cameBack = false;
    bool heldCameBack = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        {
            const COMMON_YR::CancelHold hold;
            printLog(3, "held\n");
            heldCameBack = true;
        }
        printLog(3, "open\n");
        cameBack = true;
    });
    thread.join();
    EXPECT_TRUE(heldCameBack);
    EXPECT_FALSE(cameBack);
    ASSERT_EQ(fake::log().lines().size(), 1U);
    EXPECT_FALSE(fake::log().lines().front().cancelEnabled);
}

TEST_F(FakeServices, calls_of_many_threads_are_all_recorded) {
    constexpr unsigned long kThreads = 4;
    constexpr unsigned long kLines = 200;
    std::vector<std::thread> threads;
    for (unsigned long i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (unsigned long line = 0; line < kLines; ++line) {
                printLog(3, "line\n");
                const char message[16] = {};
                velPublishMsg(nullptr, message);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(fake::loggedTimes(kThreads * kLines, 3, "line\n"));
    EXPECT_EQ(fake::node().count(), kThreads * kLines);
}

}  // namespace
