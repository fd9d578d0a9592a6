// Lets a flash driver be destroyed while one of its operations still runs on another thread, as happens when
// the process exits after a wait for the flashing jobs timed out. And refuses another operation meanwhile, as when the
// process begins another run instead.
//
// What an operation works on is shared by the driver and the operation itself, so it outlives both. The
// driver's destructor asks the operation to end at its next block and waits a moment for it.
#pragma once

#include <unistd.h>

#include <atomic>
#include <memory>

#include "common/cancellation.h"

namespace kavro {

class OperationControl {
  public:
    // Whether a running operation may go on.
    [[nodiscard]] bool keepGoing() const { return !stopRequested.load(); }

    // Asks a running operation to end and waits until it has, for half a second at most.
    void stopAndWait() {
        constexpr int kTurns = 100;
        constexpr unsigned kTurnUs = 5000;
        const COMMON_YR::CancelHold hold;
        stopRequested = true;
        for (int turn = 0; turn < kTurns && running; ++turn) {
            usleep(kTurnUs);
        }
    }

  private:
    friend class Operation;
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> running{false};
};

// One operation, from construction to destruction; not begun while another one runs.
class Operation {
  public:
    explicit Operation(OperationControl& operationControl)
        : control(operationControl), begun(!control.running.exchange(true)) {}
    ~Operation() {
        if (begun) {
            control.running = false;
        }
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    [[nodiscard]] bool hasBegun() const { return begun; }

  private:
    OperationControl& control;
    const bool begun;
};

// Runs one operation of a driver with cancellation held off. Flasher is what the operation works on; it has
// an OperationControl named control and says by refuse() that an earlier operation is still at work; and the pointer
// handed over keeps it alive until the operation is over.
template <typename Flasher, typename Work>
int runOperation(std::shared_ptr<Flasher> flasher, const Work& work) {
    const COMMON_YR::CancelHold hold;
    const Operation operation(flasher->control);
    return operation.hasBegun() ? work(*flasher) : flasher->refuse();
}

}  // namespace kavro
