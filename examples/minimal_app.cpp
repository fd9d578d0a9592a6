// The least an application does: it confirms what runs, activates what was installed, installs what it gets.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "upgrade/upgrade_api.h"

namespace {

int install(const std::string& package) {
    int result = -1;
    std::atomic<bool> done{false};
    std::thread run([&] {
        result = UPGRADE_main_proc_fun(package);  // blocks until the run is over
        done = true;
    });
    while (!done) {
        std::printf("stage %d, %d %%\n", UPGRADE_get_stage(), UPGRADE_get_progress());
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    run.join();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    std::string packageDirectory;
    if (UPGRADE_init(packageDirectory) != 0) {
        std::puts("the device is not fit for upgrades; the system log says why");
        return 1;
    }
    // New software is on trial until then: the boot loader goes back to the old one after a few starts.
    if (UpgradeProc::getInstance()->mpu->activate(false) < 0) {
        std::puts("the running software could not be confirmed; the system log says why");
    }
    if (UPGRADE_isUpgraded()) {  // installed before the restart
        return UPGRADE_activate() == 0 ? 0 : 1;
    }
    if (argc != 2) {
        std::printf("usage: minimal_app PACKAGE (received into %s)\n", packageDirectory.c_str());
        return 2;
    }
    return install(argv[1]) == 0 ? 0 : 1;
}
