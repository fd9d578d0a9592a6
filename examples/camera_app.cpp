// A device's main program with the library over its whole life. Each start does what it finds to be done and then
// obeys commands on standard input: install PATH, rollback, give-up, status, quit. docs/integrating.md says why so.
//
// It ends with 0; with 1 when the device is not fit for upgrades, 3 when it is to be restarted by somebody else.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include "event_input.h"
#include "receive_package.h"
#include "upgrade/upgrade_api.h"

namespace {

enum Exit { kServe = -1, kEnded = 0, kUnfit = 1, kToBeRestarted = 3 };
constexpr int kNotReceived = 1;  // among the results of a run, which are 0 and below

std::string package;              // the received package; set before the first run
std::atomic<bool> giveUp{false};  // whatever runs is to be given up
bool quitting = false;
EventInput input;
std::thread run;  // one at a time; joinable from its start until its result was looked at
std::atomic<int> result{0};

// --- A start --------------------------------------------------------------------------------------------------------

void reportLastRun() {
    static const char* const outcomes[] = {"none", "upgrade succeeded", "upgrade failed",
                                           "rollback succeeded", "rollback failed"};
    UPG_STS_LSAT_RT_E outcome = UPG_STS_LAST_RT_NONE;
    const bool known = UPGRADE_get_status_last_runtime(&outcome) == 0;
    std::printf("last run: %s\n", known ? outcomes[outcome] : "unknown");
}

// This program's own judgement of the software that has just started: whatever a camera must be able to do.
bool isInOrder() {
    std::string version;
    const bool known = UPGRADE_get_cur_ver_str(version) == 0;
    const bool mcuAnswers = velGetMcuVersion(UpgradeProc::getInstance()->node) >= 0;
    std::printf("software %s%s\n", known ? version.c_str() : "without a version",
                mcuAnswers ? "" : ", no answer of the microcontroller");
    return known && mcuAnswers;
}

// The reset comes a moment later and finds everything on storage.
Exit restart() {
    sync();
    const bool asked = UPGRADE_request_mcu_reset_mpu() >= 0;
    std::puts(asked ? "restarting" : "to be restarted: the microcontroller could not be asked for it");
    return asked ? kEnded : kToBeRestarted;
}

Exit start() {
    std::string directory;
    if (UPGRADE_init(directory) != 0) {
        std::puts("the device is not fit for upgrades; the system log says why");
        return kUnfit;
    }
    package =
        directory + "/recv.tar.xz";  // where a rollback puts its copy too: so there is one such file at most
    removeHalfReceived(package);
    reportLastRun();
    // Software on trial is left again by the boot loader unless it is confirmed within a few starts. It takes a watchdog
    // to make them, where software that is not in order hangs on.
    if (!isInOrder() || UpgradeProc::getInstance()->mpu->activate(false) < 0) {
        std::puts("the running software is not confirmed");
    }
    if (!UPGRADE_isUpgraded()) {
        return kServe;
    }
    if (UPGRADE_activate() != 0) {  // no restart: it would end here again, and again
        std::puts("what was installed could not be activated; the system log says why");
        return kServe;
    }
    std::puts("activated");
    return restart();
}

// --- A run ----------------------------------------------------------------------------------------------------------

int install(const std::string& from) {
    const bool isHere = from == package || receivePackage(from, package, giveUp);
    return isHere ? UPGRADE_main_proc_fun(package) : kNotReceived;
}

// On a thread of its own: a run takes minutes, while the camera goes on. All its threads leave signals to others.
void startRun(const std::function<int()>& work) {
    if (run.joinable()) {
        std::puts("refused: a run is in progress");
        return;
    }
    giveUp = false;
    run = std::thread([work] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        result = work();
        input.tellRunOver();
    });
}

void showRun() {
    std::printf("state %d, stage %s, %d %%\n", UPGRADE_get_state(),
                COMMON_YR::getKeyString(UPGRADE_get_stage(), UpgradeProc::stageNames),
                UPGRADE_get_progress());
}

// Whether the run has left something to restart for.
bool finishRun() {
    run.join();
    unlink(package.c_str());  // when it is installed the library has kept a copy
    if (result == 0) {
        std::puts("done");
    } else if (result == kNotReceived) {
        std::puts(giveUp ? "given up, nothing received" : "no whole package received");
    } else {
        std::puts(giveUp && UPGRADE_get_giveup_sts() == 1 ? "given up" : "failed; the system log says why");
    }
    return result == 0;
}

// --- Commands -------------------------------------------------------------------------------------------------------

void quit() {
    quitting = true;
    giveUp = run.joinable();  // what is being flashed is waited for
}

void obey(const std::string& command) {
    const std::string installing = "install ";
    if (command.compare(0, installing.size(), installing) == 0) {
        startRun([from = command.substr(installing.size())] { return install(from); });
    } else if (command == "rollback") {
        startRun(UPGRADE_rollback_mpu);
    } else if (command == "give-up") {
        giveUp = run.joinable();
    } else if (command == "status") {
        showRun();
    } else if (command == "quit") {
        quit();
    } else {
        std::puts("unknown command: install PATH, rollback, give-up, status or quit");
    }
}

Exit serve() {
    std::string command;
    while (run.joinable() || (input.expectsCommands() && !quitting)) {
        switch (input.next(run.joinable() ? 1000 : -1, command)) {
            case Event::kNothing:
                if (run.joinable()) {
                    showRun();
                }
                break;
            case Event::kCommand:
                obey(command);
                break;
            case Event::kSignal:
                quit();
                break;
            case Event::kRunOver:
                if (finishRun() && !quitting) {
                    return restart();
                }
                break;
        }
        if (giveUp) {  // again and again: a run forgets at its beginning what was asked before
            UPGRADE_set_giveup_upgrade_flag();
        }
    }
    return kEnded;
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);  // a reader of the output that goes away must not end a run
    const Exit exit = start();
    return exit == kServe ? serve() : exit;
}
