// An application that leaves the decisions about its device to the agent: what is in the way of an installation, which
// release it can go back to, what somebody must do.
//
//   agent_app start                 at each start of the device, when the software has found itself in order
//   agent_app install PACKAGE KEY   a package that was received, if it carries the maker's public key
//   agent_app activate              what was installed starts next
//   agent_app back                  the kept release starts next
#include <cstdio>
#include <string>

#include "agent/activation.h"
#include "agent/lock.h"
#include "agent/run.h"
#include "agent/start.h"
#include "agent/state.h"
#include "upgrade/upgrade_api.h"

namespace {

namespace agent = kavro::agent;

int failed(const kavro::Error& error) {
    std::fprintf(stderr, "%s: %s\n  next: %s\n", kavro::nameOf(error.code), error.text.c_str(),
                 error.next.c_str());
    for (const kavro::Error& other : error.further) {
        failed(other);
    }
    return static_cast<int>(error.code);
}

// What a start has left unfinished is completed, and what runs is good: the boot loader keeps it.
int start() {
    const auto device = agent::DeviceLock::take({});  // nobody else changes it meanwhile
    if (!device.ok()) {
        return failed(device.error());
    }
    const auto completed = agent::completeStart();
    std::string packageDirectory;
    if (!completed.ok()) {
        return failed(completed.error());
    }
    if (UPGRADE_init(packageDirectory) != 0) {
        std::fputs("the device is not fit for upgrades; the system log says why\n", stderr);
        return 1;
    }
    const auto confirmed = agent::confirm();
    if (!confirmed.ok()) {
        return failed(confirmed.error());
    }
    for (const auto& need : agent::readState().needs) {
        std::printf("to do: %s (%s)\n", need.next.c_str(), need.text.c_str());
    }
    return 0;
}

// Tells how far a run is.
class Progress : public agent::RunObserver {
    void show(const agent::RunStatus& status) override {
        if (status.progress != shown) {
            std::printf("%d %%\n", status.progress);
        }
        shown = status.progress;
    }
    int shown = -1;
};

int told(const kavro::Result<agent::RunRecord>& run) {
    if (!run.ok()) {
        return failed(run.error());
    }
    std::puts(run.value().outcome.c_str());
    return 0;
}

// Nothing is touched when something is in the way; all of it is told at once.
int install(const std::string& package, const std::string& key) {
    agent::RunOptions options;
    options.trustedKey = key;
    Progress progress;
    return told(agent::install(package, options, &progress));  // blocks until the run is over
}

int activate() {
    const auto device = agent::DeviceLock::take({});
    if (!device.ok()) {
        return failed(device.error());
    }
    const auto done = agent::activate();
    return done.ok() ? std::puts(done.value().c_str()) < 0 : failed(done.error());
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "start" && argc == 2) {
        return start();
    }
    if (command == "install" && argc == 4) {
        return install(argv[2], argv[3]);
    }
    if (command == "activate" && argc == 2) {
        return activate();
    }
    if (command == "back" && argc == 2) {
        return told(agent::rollback());
    }
    std::fputs("usage: agent_app start | install PACKAGE KEY | activate | back\n", stderr);
    return 2;
}
