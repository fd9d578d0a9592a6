// What the tests of flashing share: the controller with versions installed and in the package, and a look at
// what becomes of them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/common/libc_spies.h"
#include "tests/common/rendezvous.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "upgrade/upgrade_api.h"

namespace flashing {

inline constexpr const char* kMonitor = "aUpgrade_AMon";
inline constexpr const char* kUnit = "upgrade/upgrade_interface";
inline constexpr const char* kFirmware = "/raw/upgrade";

inline constexpr UPGRADE_FLAG_T kNothing{false, false, false};
inline constexpr UPGRADE_FLAG_T kAll{true, true, true};
inline constexpr UPGRADE_FLAG_T kBoth{false, true, true};
inline constexpr UPGRADE_FLAG_T kMpuOnly{false, true, false};
inline constexpr UPGRADE_FLAG_T kMcuOnly{false, false, true};

// Installed 1.104.7.2, the package 1.105.9.3.
inline constexpr int kInstalledMcu = 7;
inline constexpr int kPackageMcu = 9;
inline constexpr int kUnfinished = -1;

class Flashing : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        spy::sleeps().onSleep({});
        threadsWithoutJobs = testsupport::threadCount();
        proc = UpgradeProc::getInstance();
        proc->currentVersion = {1, 104, kInstalledMcu, 2};
        proc->targetVersion = {1, 105, kPackageMcu, 3};
        L_VERSION_T installed = proc->currentVersion;
        testsupport::writeVersions(UpgradeProc::currentCfg, installed);
        fake::log().clear();
        fake::node().clear();
        fake::calls().clear();
    }
    // No job outlives its case.
    void TearDown() override {
        spy::sleeps().onSleep({});
        spy::failThreads({});
        EXPECT_TRUE(testsupport::eventually([this] { return !jobThreadIsThere(); }));
    }

    // A job's thread gets its name a moment after its start, so threads are counted.
    bool jobThreadIsThere() const { return testsupport::threadCount() > threadsWithoutJobs; }
    static int recordedMcuVersion() { return testsupport::readVersions(UpgradeProc::currentCfg).mcu; }
    // The orders of log lines, driver calls and messages are of one count.
    static unsigned long orderOfLine(const std::string& text) {
        for (const fake::LogLine& line : fake::log().lines()) {
            if (line.text == text) {
                return line.order;
            }
        }
        ADD_FAILURE() << "not logged: " << text << "\n" << fake::log();
        return 0;
    }
    static unsigned long orderOfCall(const std::string& text) {
        for (const fake::Call& call : fake::calls().all()) {
            if (call.text == text) {
                return call.order;
            }
        }
        ADD_FAILURE() << "not called: " << text;
        return 0;
    }
    static std::vector<std::string> driverCalls() { return fake::calls().texts(); }

    UpgradeProc* proc = nullptr;

  private:
    unsigned long threadsWithoutJobs = 0;
};

}  // namespace flashing
