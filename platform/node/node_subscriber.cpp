#include "platform/node/node_subscriber.h"

#include <nng/protocol/pubsub0/sub.h>

namespace kavro {

namespace {

// A publisher may live for a second only, as one that activates: whoever is late has missed it.
constexpr nng_duration kFirstRedialMs = 20;
constexpr nng_duration kSlowestRedialMs = 200;

}  // namespace

std::unique_ptr<NodeSubscriber> NodeSubscriber::open(const std::string& address, std::string& error) {
    std::unique_ptr<NodeSubscriber> subscriber(new NodeSubscriber);
    const int result = subscriber->dial(address);
    if (result != 0) {
        error = nng_strerror(result);
        return nullptr;
    }
    return subscriber;
}

int NodeSubscriber::dial(const std::string& address) {
    int result = nng_sub0_open(&socket);
    if (result == 0) {
        result = nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, "", 0);
    }
    if (result == 0) {
        result = nng_socket_set_ms(socket, NNG_OPT_RECONNMINT, kFirstRedialMs);
    }
    if (result == 0) {
        result = nng_socket_set_ms(socket, NNG_OPT_RECONNMAXT, kSlowestRedialMs);
    }
    return result == 0 ? nng_dial(socket, address.c_str(), nullptr, NNG_FLAG_NONBLOCK) : result;
}

NodeSubscriber::~NodeSubscriber() {
    nng_close(socket);  // the initial value is no socket, which nng_close() refuses
}

std::optional<NodeMessage> NodeSubscriber::receive(int timeoutMs) {
    nng_msg* message = nullptr;
    if (nng_socket_set_ms(socket, NNG_OPT_RECVTIMEO, timeoutMs) != 0 ||
        nng_recvmsg(socket, &message, 0) != 0) {
        return std::nullopt;
    }
    NodeMessage received{{static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message)},
                         nng_pipe_id(nng_msg_get_pipe(message))};
    nng_msg_free(message);
    return received;
}

}  // namespace kavro
