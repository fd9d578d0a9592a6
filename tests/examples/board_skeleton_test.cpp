// libupgrade.so, as it is shipped, on a board's own services instead of ours. Runs with LD_BIND_NOW, so that a service
// that the skeleton lacks keeps the program from starting.
#include <gtest/gtest.h>
#include <link.h>

#include <string>
#include <vector>

#include "upgrade/upgrade_api.h"

namespace {

std::vector<std::string> loadedLibraries() {
    std::vector<std::string> paths;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* list) {
            static_cast<std::vector<std::string>*>(list)->emplace_back(info->dlpi_name);
            return 0;
        },
        &paths);
    return paths;
}

size_t countContaining(const std::vector<std::string>& paths, const std::string& part) {
    size_t count = 0;
    for (const std::string& path : paths) {
        count += path.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
}

}  // namespace

TEST(BoardSkeleton, is_loaded_in_the_place_of_our_services) {
    const std::vector<std::string> paths = loadedLibraries();
    EXPECT_EQ(countContaining(paths, "/libupgrade.so"), 1U);
    EXPECT_GE(countContaining(paths, KAVRO_BOARD_DIR), 1U);
    EXPECT_EQ(countContaining(paths, "/platform/"), 0U);
}

TEST(BoardSkeleton, makes_the_start_fail_in_order) {
    std::string directory = "untouched";
    testing::internal::CaptureStderr();
    EXPECT_EQ(UPGRADE_init(directory), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(directory, "untouched");
    EXPECT_NE(log.find("UpgradeMcu: this board has none yet\n"), std::string::npos) << log;
    EXPECT_NE(log.find("UpgradeProc::getInstance() failed!\n"), std::string::npos) << log;
}

TEST(BoardSkeleton, refuses_a_package) {
    EXPECT_EQ(UPGRADE_main_proc_fun("/firmware/any.pkg"), -1);
    EXPECT_EQ(UPGRADE_activate(), -1);
    EXPECT_LT(UPGRADE_rollback_mpu(), 0);
    EXPECT_EQ(UPGRADE_request_mcu_reset_mpu(), -1);
}
