// One operation at a time.
#include "agent/lock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "tests/agent/held_device.h"
#include "upgrade/device_lock.h"
#include "upgrade/upgrade_api.h"

namespace {

using agent_test::HeldDevice;
using kavro::ErrorCode;
using kavro::agent::DeviceLock;
using kavro::agent::Patience;
using namespace std::chrono_literals;

TEST(AgentLock, keeps_out_another_operation_of_this_process) {
    auto first = DeviceLock::take({});
    ASSERT_TRUE(first.ok());
    std::thread([] {
        const auto second = DeviceLock::take({});
        ASSERT_FALSE(second.ok());
        EXPECT_EQ(second.error().code, ErrorCode::kBusy);
        EXPECT_EQ(second.error().text,
                  "another operation of this process is changing the device, nothing was done");
    }).join();
}

TEST(AgentLock, is_not_given_out_beside_a_run_that_the_application_has_begun_itself) {
    ASSERT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    UpgradeProc::getInstance()->running = true;
    const auto lock = DeviceLock::take({});
    UpgradeProc::getInstance()->running = false;
    UPGRADE_unlock_device();
    ASSERT_FALSE(lock.ok());
    EXPECT_EQ(lock.error().code, ErrorCode::kBusy);
    EXPECT_TRUE(DeviceLock::take({}).ok());
}

TEST(AgentLock, lets_the_calls_of_the_library_through) {
    const auto lock = DeviceLock::take({});
    ASSERT_TRUE(lock.ok());
    EXPECT_EQ(UPGRADE_lock_device(nullptr), UPGRADE_LOCK_TAKEN);
    UPGRADE_unlock_device();
    EXPECT_TRUE(UPGRADE_is_device_locked(nullptr));
}

TEST(AgentLock, ends_with_its_object) {
    { EXPECT_TRUE(DeviceLock::take({}).ok()); }
    EXPECT_FALSE(UPGRADE_is_device_locked(nullptr));
    EXPECT_TRUE(DeviceLock::take({}).ok());
}

TEST(AgentLock, of_another_process_is_refused_by_its_name) {
    HeldDevice other;
    const auto lock = DeviceLock::take({});
    ASSERT_FALSE(lock.ok());
    EXPECT_EQ(lock.error().code, ErrorCode::kBusy);
    EXPECT_EQ(lock.error().text.find("process " + std::to_string(other.pid()) + " ("), 0u)
        << lock.error().text;
    other.end();
    EXPECT_TRUE(DeviceLock::take({}).ok());
}

TEST(AgentLock, is_waited_for_as_long_as_asked) {
    const HeldDevice other(700ms);
    Patience patience;
    patience.longest = 60s;
    EXPECT_TRUE(DeviceLock::take(patience).ok());
}

TEST(AgentLock, is_waited_for_no_longer_than_wanted) {
    const HeldDevice other;
    Patience patience;
    patience.longest = 60s;
    int asked = 0;
    patience.keepWaiting = [&asked] { return ++asked < 3; };
    const auto lock = DeviceLock::take(patience);
    ASSERT_FALSE(lock.ok());
    EXPECT_EQ(lock.error().code, ErrorCode::kGivenUp);
    EXPECT_EQ(asked, 3);
}

}  // namespace
