#include "tools/upgradectl/device_turn.h"

#include "tools/upgradectl/exit_code.h"

namespace upgradectl {

kavro::agent::DeviceLock takeDevice(std::chrono::milliseconds patience, const Interrupts& interrupts) {
    kavro::agent::Patience wanted;
    wanted.longest = patience;
    wanted.keepWaiting = [&interrupts] { return interrupts.count() == 0; };
    return kavro::valueOf(kavro::agent::DeviceLock::take(wanted));
}

void withDevice(std::chrono::milliseconds patience, const std::function<void()>& work) {
    const kavro::agent::DeviceLock device = [patience] {
        const Interrupts interrupts;
        return takeDevice(patience, interrupts);
    }();
    work();
}

}  // namespace upgradectl
