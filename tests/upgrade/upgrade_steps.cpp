// A program that calls the upgrade manager as a process of its own, with the fakes of tests/support: what a
// device does between two starts. For tests that restart the process.
//
//   upgrade_steps STEP...
//     mcu=VERSION     the microcontroller reports this version from now on
//     fail=OPERATION  that operation of the MPU's driver fails: upgrade, activate
//     giveup          every run is given up while its package is digested
//     run=PATH, activate, rollback
//     state, last     UPGRADE_get_state, UPGRADE_get_status_last_runtime
//     exit            ends the process at once, by exit()
//
// Prints "STEP: RESULT" for every step that has one, and then what was logged and called.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/fake_services.h"
#include "upgrade/upgrade_api.h"

namespace {

void printRecords() {
    for (const fake::LogLine& line : fake::log().lines()) {
        std::printf("log %d %s", line.level, line.text.c_str());
    }
    for (const std::string& call : fake::calls().texts()) {
        std::printf("call %s\n", call.c_str());
    }
    for (const int state : fake::node().states()) {
        std::printf("publish %d\n", state);
    }
}

bool startsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

int lastRuntime() {
    UPG_STS_LSAT_RT_E status = UPG_STS_LAST_RT_NONE;
    return UPGRADE_get_status_last_runtime(&status) == 0 ? status : -1;
}

// False for a step that has no result.
bool prepare(const std::string& step) {
    if (startsWith(step, "mcu=")) {
        fake::mcuVersion().returns(std::stoi(step.substr(4)));
        return true;
    }
    if (step == "fail=upgrade") {
        fake::mpu().upgrade.returns(-1);
        return true;
    }
    if (step == "fail=activate") {
        fake::mpu().activate.returns(-1);
        return true;
    }
    if (step == "giveup") {
        fake::log().onLine([](const fake::LogLine& line) {
            if (line.text == "chkFileMd5\n") {
                UPGRADE_set_giveup_upgrade_flag();
            }
        });
        return true;
    }
    return false;
}

int perform(const std::string& step) {
    if (startsWith(step, "run=")) {
        return UPGRADE_main_proc_fun(step.substr(4));
    }
    if (step == "activate") {
        return UPGRADE_activate();
    }
    if (step == "rollback") {
        return UPGRADE_rollback_mpu();
    }
    if (step == "state") {
        return UPGRADE_get_state();
    }
    if (step == "last") {
        return lastRuntime();
    }
    std::fprintf(stderr, "unknown step %s\n", step.c_str());
    std::exit(EXIT_FAILURE);
}

}  // namespace

int main(int count, char** arguments) {
    for (int i = 1; i < count; ++i) {
        const std::string step = arguments[i];
        if (step == "exit") {
            std::exit(EXIT_SUCCESS);
        }
        if (!prepare(step)) {
            std::printf("%s: %d\n", step.c_str(), perform(step));
        }
    }
    printRecords();
    return EXIT_SUCCESS;
}
