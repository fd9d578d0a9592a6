// What the board tells of its slots.
#include "common/board.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/platform/flash/mpu_device.h"

namespace {

using COMMON_YR::boardReadProgress;
using COMMON_YR::boardReadState;
using COMMON_YR::BoardState;
using COMMON_YR::boardVerifySlot;
using testsupport::kWrittenSlot;
using testsupport::releaseOf;

class Board : public testsupport::MpuDevice {
  protected:
    static BoardState state() {
        BoardState state;
        std::string error;
        EXPECT_EQ(boardReadState(state, error), 0) << error;
        return state;
    }

    static void writeSlotB() {
        putRelease(releaseOf(1));
        UpgradeMpu mpu;
        ASSERT_EQ(install(mpu), 0);
    }
};

TEST_F(Board, tells_which_slot_runs_and_which_starts_next) {
    EXPECT_EQ(state().runningSlot, "a");
    EXPECT_EQ(state().nextSlot, "a");
    EXPECT_FALSE(state().onTrial);
    EXPECT_EQ(state().writtenSlot, "");
}

TEST_F(Board, tells_what_awaits_its_activation_and_what_it_holds) {
    writeSlotB();
    const BoardState board = state();
    EXPECT_EQ(board.nextSlot, "a");
    EXPECT_EQ(board.writtenSlot, "b");
    const auto content = board.slots.at("b");
    ASSERT_EQ(content.size(), 3u);
    EXPECT_EQ(content.at("Image").bytes, static_cast<long long>(releaseOf(1).kernel.size()));
    EXPECT_EQ(content.at("ext4").sha256.size(), 64u);
    EXPECT_EQ(content.count("cv22_kavro_qz7.dtb"), 1u);
}

TEST_F(Board, forgets_what_awaits_its_activation) {
    writeSlotB();
    std::string error;
    EXPECT_EQ(COMMON_YR::boardDropWrittenSlot(error), 0) << error;
    EXPECT_EQ(state().writtenSlot, "");
    EXPECT_EQ(COMMON_YR::boardDropWrittenSlot(error), 0) << "there is none any more: " << error;
    EXPECT_LT(UpgradeMpu().activate(true), 0) << "what the other slot holds is not what is on record of it";
}

TEST_F(Board, that_cannot_forget_it_says_so) {
    std::filesystem::create_directories(std::string(kWrittenSlot) + "/in the way");
    std::string error;
    EXPECT_LT(COMMON_YR::boardDropWrittenSlot(error), 0);
    EXPECT_NE(error.find(kWrittenSlot), std::string::npos) << error;
}

TEST_F(Board, tells_of_a_trial_and_its_starts) {
    writeSlotB();
    ASSERT_EQ(UpgradeMpu().activate(true), 0);
    setEnvironment({{"bootcount", "2"}, {"bootlimit", "5"}});
    const BoardState board = state();
    EXPECT_EQ(board.runningSlot, "a");
    EXPECT_EQ(board.nextSlot, "b");
    EXPECT_TRUE(board.onTrial);
    EXPECT_EQ(board.trialStarts, 2);
    EXPECT_EQ(board.trialLimit, 5);
    EXPECT_EQ(board.writtenSlot, "");
}

TEST_F(Board, does_not_guess_numbers_that_it_cannot_read) {
    setEnvironment({{"upgrade_available", "1"}, {"bootcount", "many"}, {"bootlimit", ""}});
    EXPECT_EQ(state().trialStarts, COMMON_YR::kBoardUnknown);
    EXPECT_EQ(state().trialLimit, COMMON_YR::kBoardUnknown);
}

TEST_F(Board, finds_a_slot_that_holds_what_it_must) {
    std::string error;
    writeSlotB();
    EXPECT_EQ(boardVerifySlot("b", error), 0) << error;
    ASSERT_EQ(UpgradeMpu().activate(true), 0);
    EXPECT_EQ(boardVerifySlot("b", error), 0) << error;
}

TEST_F(Board, finds_a_slot_that_was_damaged) {
    writeSlotB();
    std::string damaged = partition("rootfs_b");
    damaged[4000] = static_cast<char>(damaged[4000] ^ 1);
    putPartition("rootfs_b", damaged);
    std::string error;
    EXPECT_LT(boardVerifySlot("b", error), 0);
    EXPECT_NE(error.find("rootfs_b"), std::string::npos) << error;
}

TEST_F(Board, knows_nothing_of_a_slot_that_nobody_told_of) {
    for (const std::string slot : {"b", "c", ""}) {
        std::string error;
        EXPECT_LT(boardVerifySlot(slot, error), 0);
        EXPECT_EQ(error, "it is not known what slot " + slot + " must hold");
    }
    EXPECT_EQ(state().slots.count("c"), 0u);
}

TEST_F(Board, tells_how_much_was_written_and_compared) {
    COMMON_YR::BoardProgress progress;
    boardReadProgress(progress);
    EXPECT_EQ(progress.mpu.total, 0);
    writeSlotB();
    boardReadProgress(progress);
    const auto& release = releaseOf(1);
    const std::size_t bytes =
        release.kernel.size() + release.deviceTree.size() + release.rootFileSystem.size();
    EXPECT_EQ(progress.mpu.total, static_cast<long long>(2 * bytes));
    EXPECT_EQ(progress.mpu.done, progress.mpu.total);
    EXPECT_EQ(progress.mcu.total, 0);
}

TEST_F(Board, tells_the_log_file_of_the_device) {
    EXPECT_EQ(COMMON_YR::boardLogFile(), "/tmp/kavro.log");
    testsupport::writeFile("/etc/kavro/platform.json", "{}");
    EXPECT_EQ(COMMON_YR::boardLogFile(), "");
}

TEST_F(Board, that_cannot_be_read_says_which_file) {
    testsupport::writeFile(kWrittenSlot, "{ \"slot\": ");
    BoardState board;
    board.runningSlot = "as it was";
    std::string error;
    EXPECT_LT(boardReadState(board, error), 0);
    EXPECT_NE(error.find(kWrittenSlot), std::string::npos) << error;
    EXPECT_EQ(board.runningSlot, "as it was");
    EXPECT_LT(boardVerifySlot("a", error), 0);
    std::filesystem::remove(testsupport::kRunningSlot);
    EXPECT_LT(boardReadState(board, error), 0);
}

}  // namespace
