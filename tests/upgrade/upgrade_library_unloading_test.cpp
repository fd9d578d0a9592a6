// The library comes and goes with dlopen and dlclose. Built twice: with the services of the tests, and with
// those of the platform.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/common/rendezvous.h"
#include "tests/support/device.h"
#include "upgrade/upgrade_version_ctrl.h"

namespace {

using testsupport::eventually;

constexpr int kTimes = 20;
constexpr const char* kMonitor = "aUpgrade_AMon";

bool isMapped() {
    return testsupport::readFile("/proc/self/maps").find("libupgrade.so") != std::string::npos;
}

unsigned long monitors() {
    const std::vector<std::string> names = testsupport::threadNames();
    return static_cast<unsigned long>(std::count(names.begin(), names.end(), kMonitor));
}

class Library {
  public:
    Library() : handle(dlopen(KAVRO_UPGRADE_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(handle, nullptr) << dlerror();
    }
    ~Library() {
        if (handle != nullptr) {
            EXPECT_EQ(dlclose(handle), 0);
        }
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    template <typename Result, typename... Args>
    Result call(const char* symbol, Args... args) const {
        auto* const function = reinterpret_cast<Result (*)(Args...)>(dlsym(handle, symbol));
        if (function == nullptr) {
            ADD_FAILURE() << dlerror();
            return Result();
        }
        return function(args...);
    }
    // Creates the controller.
    int stage() const { return call<int>("_Z17UPGRADE_get_stagev"); }

  private:
    void* handle;
};

TEST(UpgradeLibrary, is_not_there_before_it_is_loaded) {
    EXPECT_FALSE(isMapped());
    EXPECT_EQ(monitors(), 0U);
}

TEST(UpgradeLibrary, runs_its_monitor_from_load_to_unload) {
    {
        const Library library;
        EXPECT_TRUE(isMapped());
        EXPECT_TRUE(eventually([] { return monitors() == 1; }));
    }
    EXPECT_TRUE(eventually([] { return monitors() == 0; }));
}

TEST(UpgradeLibrary, is_gone_after_each_unload) {
    for (int i = 0; i < kTimes; ++i) {
        {
            const Library library;
            ASSERT_TRUE(isMapped());
        }
        ASSERT_FALSE(isMapped()) << i;
        ASSERT_TRUE(eventually([] { return monitors() == 0; })) << i;
    }
}

TEST(UpgradeLibrary, is_gone_after_each_unload_with_a_controller) {
    for (int i = 0; i < kTimes; ++i) {
        {
            const Library library;
            EXPECT_EQ(library.stage(), 0);
        }
        ASSERT_FALSE(isMapped()) << i;
        ASSERT_TRUE(eventually([] { return monitors() == 0; })) << i;
    }
}

TEST(UpgradeLibrary, is_gone_after_jobs_have_run) {
    {
        const Library library;
        library.call<int>(
            "_Z15UPGRADE_mpu_mcuNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE14UPGRADE_FLAG_Tb",
            std::string("/raw/upgrade"), UPGRADE_FLAG_T{}, false);
    }
    EXPECT_FALSE(isMapped());
    EXPECT_TRUE(eventually([] { return monitors() == 0; }));
}

TEST(UpgradeLibrary, leaves_no_descriptor_open) {
    { const Library first; }
    const unsigned long before = testsupport::descriptorCount();
    for (int i = 0; i < 5; ++i) {
        const Library library;
    }
    EXPECT_EQ(testsupport::descriptorCount(), before)
        << testing::PrintToString(testsupport::descriptorTargets());
}

}  // namespace
