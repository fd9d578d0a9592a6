#include "tools/upgradectl/watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "agent/device_log.h"
#include "base/errno_text.h"
#include "base/run_line.h"
#include "base/time_stamp.h"
#include "common/node_listener.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/run_log.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

constexpr int kPollMs = 100;

// Published once after an activation. It is no state of a run, and so none of the library's names.
constexpr int kStateActivated = 5;

Failure unwritable() {
    return {ErrorCode::kOther, std::string("standard output cannot be written: ") + kavro::reasonOf(errno),
            "check what it leads to"};
}

// Each line reaches its reader at once.
class LineWriter {
  public:
    LineWriter() {
        if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {  // the next file that is opened would be taken for it
            throw unwritable();
        }
    }

    void write(const std::string& text) {
        if (std::printf("%s  %s\n", kavro::timeStamp().c_str(), text.c_str()) < 0 ||
            std::fflush(stdout) != 0) {
            throw unwritable();
        }
        ++written;
    }
    int count() const { return written; }

  private:
    int written = 0;
};

// The state in a message; nothing when it is a message of another kind.
std::optional<int> stateIn(const std::string& bytes) {
    UpgradeStatusMsg message = {};
    if (bytes.size() != sizeof message) {
        return std::nullopt;
    }
    std::memcpy(&message, bytes.data(), sizeof message);
    if (message.id != UPGRADE_STATUS_MSG_ID) {
        return std::nullopt;
    }
    return message.state;
}

std::string stateText(int state) {
    if (state == kStateActivated) {
        return "activated";
    }
    for (const COMMON_YR::MapKeyString& row : UpgradeProc::stateNames) {
        if (row.key == state) {
            return std::string("state ") + row.text;
        }
    }
    return "state " + std::to_string(state);
}

// Writes what has changed.
class ChangeView {
  public:
    explicit ChangeView(LineWriter& target) : output(target) {}

    // A new publisher's first state counts as a change.
    void showState(int state, int publisher) {
        if (state != lastState || publisher != lastPublisher) {
            output.write(stateText(state));
        }
        lastState = state;
        lastPublisher = publisher;
    }

    void showStage(const std::string& stage) {
        if (stage != lastStage) {
            output.write("stage " + stage);
        }
        lastStage = stage;
    }

  private:
    LineWriter& output;
    std::optional<int> lastState;
    int lastPublisher = 0;
    std::string lastStage;
};

// Recognises the end of a run by its states: FINISH or FAIL, or NONE after others when it ended before flashing.
class RunEnd {
  public:
    void follow(int state) {
        const bool ends = state == UPGRADE_STATE_FINISH || state == UPGRADE_STATE_FAIL ||
                          (state == UPGRADE_STATE_NONE && begun);
        begun = begun || state != UPGRADE_STATE_NONE;
        if (ends && !last) {
            last = state;
        }
    }
    bool reached() const { return last.has_value(); }

    void throwUnlessFinished() const {
        if (last == UPGRADE_STATE_FAIL) {
            throw Failure(ErrorCode::kFlashFailed, "the run failed", "look into the device's log");
        }
        if (last == UPGRADE_STATE_NONE) {
            throw Failure(ErrorCode::kOther, "the run ended before flashing", "look into the device's log");
        }
    }

  private:
    bool begun = false;
    std::optional<int> last;
};

// The device's message node, or the one at an address.
class Listener {
  public:
    explicit Listener(std::string address) {
        if (velListen == nullptr) {
            throw Failure(ErrorCode::kOther, "this device's message node cannot be listened to",
                          "'upgradectl status' tells how far a run is");
        }
        std::string error;
        handle = velListen(address, error);
        if (handle != nullptr) {
            return;
        }
        if (address.empty()) {
            throw Failure(ErrorCode::kOther, error, "name it there, or give --address");
        }
        throw Failure(ErrorCode::kOther, "the address '" + address + "' cannot be listened to: " + error,
                      "give one such as ipc:///tmp/kavro-node.ipc");
    }
    ~Listener() { velEndListening(&handle); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool receive(std::string& message, int& publisher) {
        return velReceive(handle, kPollMs, message, publisher);
    }

  private:
    void* handle = nullptr;
};

void showStages(LogFollower& log, ChangeView& view) {
    for (const std::string& line : log.newLines()) {
        if (const std::optional<kavro::RunLine> change = kavro::runLineIn(line)) {
            view.showStage(change->stage);
        }
    }
}

}  // namespace

void watch(const WatchRequest& request, const Interrupts& interrupts) {
    LineWriter output;
    LogFollower log(kavro::agent::deviceLogFile());
    Listener listener(request.address);
    ChangeView view(output);
    RunEnd end;
    bool over = false;
    while (!over && interrupts.count() == 0) {
        // Whatever came in the step after the run's end, such as its last stage, is still shown.
        over = request.untilEnd && end.reached();
        std::string message;
        int publisher = 0;
        if (listener.receive(message, publisher)) {
            if (const std::optional<int> state = stateIn(message)) {
                view.showState(*state, publisher);
                end.follow(*state);
            }
        }
        showStages(log, view);
        over = over || (request.lines > 0 && output.count() >= request.lines);
    }
    if (request.untilEnd) {
        end.throwUnlessFinished();
    }
}

}  // namespace upgradectl
