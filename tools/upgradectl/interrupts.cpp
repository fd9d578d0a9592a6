#include "tools/upgradectl/interrupts.h"

#include <atomic>
#include <cstddef>

namespace upgradectl {

namespace {

std::atomic<int> received{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may touch lock-free atomics only");

void countSignal(int /*signal*/) {
    received.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

Interrupts::Interrupts() {
    received = 0;
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        struct sigaction action = {};
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        action.sa_handler = kSignals[i] == SIGPIPE ? SIG_IGN : countSignal;
        sigaction(kSignals[i], nullptr, &previous[i]);
        if (previous[i].sa_handler != SIG_IGN) {
            sigaction(kSignals[i], &action, nullptr);
        }
    }
}

Interrupts::~Interrupts() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], &previous[i], nullptr);
    }
}

int Interrupts::count() const {
    return received.load(std::memory_order_relaxed);
}

}  // namespace upgradectl
