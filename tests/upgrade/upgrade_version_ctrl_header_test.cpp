// What this header declares, for a source that includes no other of the library's.
#include "upgrade/upgrade_version_ctrl.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

TEST(VersionHeader, declares_both_version_texts) {
    std::ofstream("/etc/kavro/version.json")
        << R"({"hw_version" : 1, "mpu_version" : 104, "mcu_version" : 7, "bld_version" : 2})";
    std::string factory;
    EXPECT_EQ(UPGRADE_getIntervalVersionString(factory), 0);
    EXPECT_EQ(factory, "V01.104.007.002");
    std::string current;
    EXPECT_EQ(UPGRADE_get_cur_ver_str(current), 0);
    EXPECT_EQ(current.substr(0, 8), "V01.104.");
}

}  // namespace
