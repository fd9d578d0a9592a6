#include "platform/node/node_subscriber.h"

#include <nng/protocol/pubsub0/sub.h>

#include <system_error>
#include <thread>

#include "common/message_node.h"

namespace kavro {

namespace {

// A publisher may live for a second only, as one that activates: whoever is late has missed it.
constexpr nng_duration kFirstRedialMs = 20;
constexpr nng_duration kSlowestRedialMs = 200;

// Version 1.5 of the library waits for ever when the head of a message has just come in while its socket is closed: it
// asks for the rest, which it has forbidden itself. Nobody else need wait for that.
void closeAside(nng_socket socket) {
    try {
        std::thread([socket] { nng_close(socket); }).detach();
    } catch (const std::system_error&) {
        // Without a thread it stays open until the process ends.
    }
}

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
        result = nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, kVelMsgBytes);
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
    if (nng_socket_id(socket) >= 0) {
        closeAside(socket);
    }
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
