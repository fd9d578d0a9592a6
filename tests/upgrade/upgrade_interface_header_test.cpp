// What this header declares, for a source that includes no other of the library's.
#include "upgrade/upgrade_interface.h"

#include <gtest/gtest.h>

namespace {

class Driver : public UpgradeLib {
  public:
    int upgrade() override { return 7; }
};

TEST(InterfaceHeader, declares_the_interface_of_a_flash_driver) {
    Driver driver;
    UpgradeLib& base = driver;
    base.setFwPath("/raw/upgrade");
    EXPECT_EQ(base.init(), 0);
    EXPECT_EQ(base.preUpgrade("/raw/upgrade", true, false), 0);
    EXPECT_EQ(base.upgrade(), 7);
    EXPECT_EQ(base.postUpgrade(), 0);
    EXPECT_EQ(base.activate(true), 0);
    EXPECT_EQ(base.fwPath, "/raw/upgrade");
    EXPECT_FALSE(base.initOk);
}

}  // namespace
