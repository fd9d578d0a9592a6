// A run in a program that logs by itself: the agent does not hear the log, and asks the library how far the run is.
#include <gtest/gtest.h>

#include <algorithm>

#include "agent/device_log.h"
#include "agent/run.h"
#include "common/utility.h"
#include "tests/support/device.h"
#include "tests/support/mcu_emulator.h"
#include "tests/support/test_package.h"

void printLog(int, const char*, ...) {}

namespace {

using kavro::agent::RunRecord;
using kavro::agent::StageChange;

TEST(RunOfAProgramWithItsOwnLog, is_followed_from_the_first_stage_to_the_last) {
    testsupport::McuEmulator mcu;
    ASSERT_TRUE(mcu.start());
    testsupport::TestPackage().setVersions(1, 105, 8, 3).writeTo("/tmp/release.pkg");
    const kavro::Result<RunRecord> run = kavro::agent::install("/tmp/release.pkg");
    ASSERT_TRUE(run.ok()) << run.error().text;
    const std::vector<StageChange>& stages = run.value().stages;
    ASSERT_GE(stages.size(), 4U);
    EXPECT_EQ(stages.front().stage, UPGRADE_STAGE_INIT);
    EXPECT_EQ(stages.back().stage, UPGRADE_STAGE_DONE);
    EXPECT_TRUE(std::is_sorted(stages.begin(), stages.end(), [](const StageChange& a, const StageChange& b) {
        return a.stage < b.stage && a.seconds < b.seconds;
    }));
    EXPECT_TRUE(run.value().log.empty());
}

TEST(RunOfAProgramWithItsOwnLog, that_fails_has_no_words_of_the_device) {
    testsupport::McuEmulator mcu;
    ASSERT_TRUE(mcu.start());
    testsupport::TestPackage()
        .setVersions(1, 105, 8, 3)
        .setComponent("cv22_kavro_qz7.dtb", std::string(std::size_t{2} << 20, 'd'))
        .writeTo("/tmp/release.pkg");
    const kavro::Result<RunRecord> run = kavro::agent::install("/tmp/release.pkg");
    ASSERT_FALSE(run.ok());
    EXPECT_EQ(run.error().code, kavro::ErrorCode::kFlashFailed);
    EXPECT_TRUE(run.error().details.empty());
}

}  // namespace
