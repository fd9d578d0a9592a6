// The interface that an application links against: names, signatures and records. That this program links
// shows that all of it is exported.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "upgrade/upgrade_api.h"

namespace {

// The type of a function is checked when this is compiled, its presence when it is linked.
template <typename Signature>
bool linked(Signature* volatile function) {
    return function != nullptr;
}
template <typename Member>
bool linkedMember(Member volatile member) {
    return member != nullptr;
}

TEST(Interface, of_start_up_is_linked) {
    EXPECT_TRUE(linked<int(std::string&)>(&UPGRADE_init));
    EXPECT_TRUE(linked<int()>(&UPGRADE_check_partitions));
    EXPECT_TRUE((linked<int(long*, long*)>(&UPGRADE_get_blk_info)));
}

TEST(Interface, of_runs_and_activation_is_linked) {
    EXPECT_TRUE(linked<int(std::string)>(&UPGRADE_main_proc_fun));
    EXPECT_TRUE(linked<int()>(&UPGRADE_activate));
    EXPECT_TRUE(linked<int()>(&UPGRADE_rollback_mpu));
    EXPECT_TRUE(linked<int()>(&UPGRADE_request_mcu_reset_mpu));
    EXPECT_TRUE(linked<bool()>(&UPGRADE_isUpgraded));
}

TEST(Interface, of_queries_is_linked) {
    EXPECT_TRUE(linked<int()>(&UPGRADE_get_state));
    EXPECT_TRUE(linked<int()>(&UPGRADE_get_stage));
    EXPECT_TRUE(linked<int()>(&UPGRADE_get_progress));
    EXPECT_TRUE(linked<void()>(&UPGRADE_set_giveup_upgrade_flag));
    EXPECT_TRUE(linked<int()>(&UPGRADE_get_giveup_sts));
    EXPECT_TRUE(linked<bool(UPG_STS_LSAT_RT_E)>(&UPGRADE_set_status_last_runtime));
    EXPECT_TRUE(linked<int(UPG_STS_LSAT_RT_E*)>(&UPGRADE_get_status_last_runtime));
}

TEST(Interface, of_packages_is_linked) {
    EXPECT_TRUE((linked<int(_UPGRADE_PKG_T&, std::string)>(&read_info_form_pkg)));
    EXPECT_TRUE((linked<int(UPGADE_PKG_OUT_T&, UPGADE_PKG_IN_T, bool)>(&UPGRADE_proc_upgrade_pkg)));
    EXPECT_TRUE((linked<int(std::string, std::string, std::string)>(&UPGRADE_verify_signature)));
}

TEST(Interface, of_versions_and_configuration_is_linked) {
    EXPECT_TRUE((linked<int(std::string, std::string, CFG_DATA_TYPE_E, void*)>(&UPGRADE_COMM_read_config)));
    EXPECT_TRUE(
        (linked<int(std::string, std::string, CFG_DATA_TYPE_E, const void*)>(&UPGRADE_COMM_write_config)));
    EXPECT_TRUE((linked<int(L_VERSION_T&, std::string)>(&UPGRADE_read_target_version)));
    EXPECT_TRUE((linked<int(L_VERSION_T&, std::string)>(&UPGRADE_write_target_version)));
    EXPECT_TRUE((linked<int(UPGRADE_FLAG_T&, L_VERSION_T, L_VERSION_T, bool)>(&UPGRADE_set_upgrade_flag)));
    EXPECT_TRUE(linked<int(std::string&)>(&UPGRADE_getIntervalVersionString));
    EXPECT_TRUE(linked<int(std::string&)>(&UPGRADE_get_cur_ver_str));
}

TEST(Interface, of_flashing_is_linked) {
    EXPECT_TRUE((linked<int(std::string, UPGRADE_FLAG_T, bool)>(&UPGRADE_mpu_mcu)));
    EXPECT_TRUE(linked<int(int)>(&UPGRADE_activatePartition));
    EXPECT_TRUE((linked<void(int, int&)>(&AsyncUpgradeMpuMcu::mpuCb)));
    EXPECT_TRUE((linked<void(int, int&)>(&AsyncUpgradeMpuMcu::mcuCb)));
    EXPECT_TRUE(
        (linkedMember<int (AsyncUpgradeMpuMcu::*)(UpgradeMpuMcuInput&, int&)>(&AsyncUpgradeMpuMcu::process)));
}

TEST(Interface, of_the_controller_is_linked) {
    using P = UpgradeProc;
    EXPECT_TRUE(linked<P*()>(&P::getInstance));
    EXPECT_TRUE((linkedMember<bool (P::*)(std::string, bool)>(&P::init)));
    EXPECT_TRUE(linkedMember<bool (P::*)()>(&P::deinit));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::onProgrameStatusChg));
    EXPECT_TRUE(linkedMember<bool (P::*)()>(&P::upgradeSucc));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::onUpgradeBegin));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::onUpgradeEnd));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::_onUpgradeBegin));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::_onUpgradeEnd));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::setUpgraded));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::setActivated));
    EXPECT_TRUE(linkedMember<bool (P::*)(bool)>(&P::ctrlSpi));
}

TEST(Interface, of_the_controllers_hooks_is_linked) {
    using P = UpgradeProc;
    EXPECT_TRUE(linkedMember<void (P::*)(L_VERSION_T&)>(&P::tryUpdateVersion));
    EXPECT_TRUE((linkedMember<void (P::*)(bool, bool)>(&P::updateVersion)));
    EXPECT_TRUE((linkedMember<void (P::*)(bool, bool)>(&P::clearVersion)));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::preUpgradeMcu));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::postUpgradeMcu));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::preUpgradeMpu));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::postUpgradeMpu));
    EXPECT_TRUE(linkedMember<void (P::*)()>(&P::preActivate));
    EXPECT_TRUE(linkedMember<int (P::*)()>(&P::activate));
    EXPECT_TRUE(linkedMember<void (P::*)(bool)>(&P::postActivate));
    EXPECT_TRUE(linkedMember<bool (P::*)(L_VERSION_T&)>(&P::getUpgraded));
}

TEST(Interface, records_have_their_layout) {
    static_assert(sizeof(L_VERSION_T) == 16 && offsetof(L_VERSION_T, hw) == 0 &&
                  offsetof(L_VERSION_T, mpu) == 4 && offsetof(L_VERSION_T, mcu) == 8 &&
                  offsetof(L_VERSION_T, bld) == 12);
    static_assert(std::is_same_v<decltype(L_VERSION_T::hw), int32_t>);
    static_assert(sizeof(UPGRADE_FLAG_T) == 3 && offsetof(UPGRADE_FLAG_T, bld) == 0 &&
                  offsetof(UPGRADE_FLAG_T, mpu) == 1 && offsetof(UPGRADE_FLAG_T, mcu) == 2);
    const L_VERSION_T version;
    EXPECT_EQ(version.hw + version.mpu + version.mcu + version.bld, 0);
    const UPGRADE_FLAG_T flag;
    EXPECT_FALSE(flag.bld || flag.mpu || flag.mcu);
}

}  // namespace
