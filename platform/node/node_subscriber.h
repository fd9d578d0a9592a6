// The receiving end of the message node, for programs that follow what another one publishes.
#pragma once

#include <nng/nng.h>

#include <memory>
#include <optional>
#include <string>

namespace kavro {

struct NodeMessage {
    std::string bytes;  // as they were published
    int publisher = 0;  // differs from connection to connection
};

// Subscribes to everything that is published on an address. While nobody listens there, and when a publisher has
// ended, it dials again and again. A publisher that sends a message longer than kVelMsgBytes is left for a new dial. For one thread at a time; it is not a cancellation point where the caller
// holds cancellation off.
class NodeSubscriber {
  public:
    // Does not wait for a publisher. Null, with the reason in error, for something that is no address.
    static std::unique_ptr<NodeSubscriber> open(const std::string& address, std::string& error);
    // Returns at once; the connection ends soon afterwards.
    ~NodeSubscriber();
    NodeSubscriber(const NodeSubscriber&) = delete;
    NodeSubscriber& operator=(const NodeSubscriber&) = delete;

    // The next message; nothing when none came within so many milliseconds.
    std::optional<NodeMessage> receive(int timeoutMs);

  private:
    NodeSubscriber() = default;
    int dial(const std::string& address);

    nng_socket socket = NNG_SOCKET_INITIALIZER;
};

}  // namespace kavro
