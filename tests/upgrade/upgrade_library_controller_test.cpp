// What unloading the library does to its controller.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_services.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(UpgradeLibraryController, goes_with_the_library_drivers_before_node) {
    fake::reset();
    void* const handle = dlopen(KAVRO_UPGRADE_LIBRARY, RTLD_NOW);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto* const getStage = reinterpret_cast<int (*)()>(dlsym(handle, "_Z17UPGRADE_get_stagev"));
    ASSERT_NE(getStage, nullptr);
    EXPECT_EQ(getStage(), 0);
    fake::calls().clear();
    fake::log().clear();
    EXPECT_EQ(dlclose(handle), 0);
    EXPECT_THAT(fake::calls().texts(), ElementsAre("~mpu()", "~mcu()", "velDestroyNode()"));
    EXPECT_TRUE(fake::nothingLogged());
}

TEST(UpgradeLibraryController, is_not_made_by_loading) {
    fake::reset();
    void* const handle = dlopen(KAVRO_UPGRADE_LIBRARY, RTLD_NOW);
    ASSERT_NE(handle, nullptr) << dlerror();
    EXPECT_EQ(dlclose(handle), 0);
    EXPECT_THAT(fake::calls().texts(), IsEmpty());
    EXPECT_EQ(fake::node().count(), 0U);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST(UpgradeLibraryController, is_made_anew_after_another_load) {
    fake::reset();
    for (int i = 0; i < 3; ++i) {
        void* const handle = dlopen(KAVRO_UPGRADE_LIBRARY, RTLD_NOW);
        ASSERT_NE(handle, nullptr) << dlerror();
        auto* const getStage = reinterpret_cast<int (*)()>(dlsym(handle, "_Z17UPGRADE_get_stagev"));
        ASSERT_NE(getStage, nullptr);
        getStage();
        EXPECT_EQ(dlclose(handle), 0);
    }
    EXPECT_EQ(fake::calls().count("mpu()"), 3U);
    EXPECT_EQ(fake::calls().count("~mpu()"), 3U);
    EXPECT_EQ(fake::calls().count("velDestroyNode()"), 3U);
}

}  // namespace
