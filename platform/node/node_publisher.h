// The publishing end of the message node: whoever dials its address and subscribes gets every message as it was
// given, without an envelope.
#pragma once

#include <nng/nng.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "base/file_descriptor.h"

namespace kavro {

// Publishes on one address. Its functions may be called from several threads at once. The caller holds
// cancellation off.
class NodePublisher {
  public:
    NodePublisher() = default;
    // Waits until everything is sent, for a second at most.
    ~NodePublisher();
    NodePublisher(const NodePublisher&) = delete;
    NodePublisher& operator=(const NodePublisher&) = delete;

    // Claims the address and listens on it; called once, before anything else. Returns the empty text, or why
    // that is impossible.
    std::string listen(const std::string& address);

    // Hands kVelMsgBytes bytes to the queues of the subscribers and returns; one that does not read loses
    // messages, and nobody else notices. False when nothing was published.
    bool publish(const void* message);

  private:
    int open(const std::string& address);
    // Of a connection that begins or ends, on a thread of nng.
    static void onConnection(nng_pipe pipe, nng_pipe_ev event, void* publisher);
    void waitUntilSent();
    bool allSent();

    FileDescriptor lock;  // released after the socket is closed
    nng_socket socket = NNG_SOCKET_INITIALIZER;
    std::atomic<std::uint64_t> published{0};
    std::mutex mutex;
    std::map<int, std::uint64_t> connections;  // by nng's number: what had been published when it began
};

}  // namespace kavro
