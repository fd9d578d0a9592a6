// From a stage change in this process to its receipt in another one.
#include <limits.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/measurements.h"
#include "bench/sample.h"
#include "bench/timeline.h"
#include "platform/node/node_subscriber.h"
#include "upgrade/upgrade_api.h"

namespace bench {
namespace {

constexpr const char* kAddress = "ipc:///tmp/kavro-node.ipc";
constexpr int kPatienceMs = 10000;
constexpr int kSilenceMs = 2000;  // after which the subscriber ends

void pauseMs(long milliseconds) {
    const timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    nanosleep(&pause, nullptr);
}

class Subscriber {
  public:
    Subscriber() : output(popen("exec /proc/$PPID/exe subscribe", "re"), pclose) {
        if (output == nullptr) {
            fail("subscriber");
        }
        setvbuf(output.get(), nullptr, _IONBF, 0);
    }

    bool hasReceived(int timeoutMs) {
        pollfd descriptor = {fileno(output.get()), POLLIN, 0};
        return poll(&descriptor, 1, timeoutMs) > 0;
    }

    // When the next message came.
    double receipt() {
        double time = 0;
        if (!hasReceived(kPatienceMs) || std::fscanf(output.get(), "%lf%*c", &time) != 1) {
            fail("a message was not received");
        }
        return time;
    }

  private:
    std::unique_ptr<FILE, int (*)(FILE*)> output;
};

}  // namespace

void measureLatency(int changes) {
    UpgradeProc* const proc = UpgradeProc::getInstance();
    Subscriber subscriber;
    // Until it is connected; then nothing may be under way any more.
    while (!subscriber.hasReceived(50)) {
        proc->onProgrameStatusChg();
    }
    do {
        subscriber.receipt();
    } while (subscriber.hasReceived(500));

    std::vector<double> delays;
    for (int change = 0; change < changes; ++change) {
        pauseMs(1);
        proc->stage.store(change % UpgradeProc::kStageCount);
        const double changed = nowMs();
        proc->onProgrameStatusChg();
        delays.push_back(subscriber.receipt() - changed);
    }
    std::sort(delays.begin(), delays.end());
    report("latency", delays[delays.size() * 99 / 100], {{"median", delays[delays.size() / 2]}});
}

void subscribe() {
    std::string error;
    const auto node = kavro::NodeSubscriber::open(kAddress, error);
    if (node == nullptr) {
        fail(error);
    }
    while (const auto message = node->receive(kSilenceMs)) {
        std::printf("%.6f\n", nowMs());
        std::fflush(stdout);
    }
}

}  // namespace bench
