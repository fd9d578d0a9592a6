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
#include "agent/preflight.h"
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

// Nothing is touched when something is in the way; all of it is told at once.
int install(const std::string& package, const std::string& key) {
    agent::PreflightOptions options;
    options.trustedKey = key;
    options.ignoreLock = true;  // it is ours
    const auto preflight = agent::preflight(package, options);
    if (!preflight.ok()) {
        return failed(preflight.error());
    }
    if (!preflight.value().clear()) {
        return failed(agent::errorOf(preflight.value()));
    }
    return UPGRADE_main_proc_fun(package) == 0 ? 0 : 1;  // blocks until the run is over
}

int activate() {
    const auto done = agent::activate();
    return done.ok() ? std::puts(done.value().c_str()) < 0 : failed(done.error());
}

int goBack() {
    const auto way = agent::findWayBack({});
    if (!way.ok()) {
        return failed(way.error());
    }
    std::printf("back to %s\n", way.value().release.c_str());
    return agent::goBack(way.value()) >= 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    const auto device = agent::DeviceLock::take({});  // nobody else changes it meanwhile
    if (!device.ok()) {
        return failed(device.error());
    }
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
        return goBack();
    }
    std::fputs("usage: agent_app start | install PACKAGE KEY | activate | back\n", stderr);
    return 2;
}
