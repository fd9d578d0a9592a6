#include "platform/node/node_publisher.h"

#include <fcntl.h>
#include <nng/protocol/pubsub0/pub.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "common/message_node.h"

namespace kavro {

namespace {

// Messages kept for one subscriber that is behind: about ten seconds of a busy upgrade.
constexpr int kQueuedMessages = 256;

// Closing drops what is still queued: how long it waits at most for a subscriber that reads slowly.
constexpr std::chrono::milliseconds kLongestWait(1000);
constexpr std::chrono::milliseconds kWaitStep(5);

const std::string kIpcScheme = "ipc://";
constexpr mode_t kLockMode = 0644;

// Claims an ipc address for one process at a time, by a lock on a file beside the socket. Without it, a
// second process would make the first one unreachable: nng removes the socket's file when listening on it
// failed. The lock ends with its process; the file stays. Returns 0 or an error number of nng.
int claimAddress(const std::string& address, FileDescriptor& lock) {
    if (address.rfind(kIpcScheme, 0) != 0) {
        return 0;
    }
    const std::string path = address.substr(kIpcScheme.size()) + ".lock";
    lock = FileDescriptor(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kLockMode));
    if (!lock.valid()) {
        return NNG_ESYSERR + errno;
    }
    return ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : NNG_EADDRINUSE;
}

std::uint64_t valueIn(nng_stat* row, const char* name) {
    nng_stat* const value = nng_stat_find(row, name);
    return value != nullptr ? nng_stat_value(value) : 0;
}

// How many messages went out on each connection of this process, by the connection's number.
std::map<int, std::uint64_t> sentMessages() {
    std::map<int, std::uint64_t> sent;
    nng_stat* all = nullptr;
    if (nng_stats_get(&all) != 0) {
        return sent;
    }
    for (nng_stat* row = nng_stat_child(all); row != nullptr; row = nng_stat_next(row)) {
        if (std::strcmp(nng_stat_name(row), "pipe") == 0) {
            sent[static_cast<int>(valueIn(row, "id"))] = valueIn(row, "tx_msgs");
        }
    }
    nng_stats_free(all);
    return sent;
}

}  // namespace

NodePublisher::~NodePublisher() {
    waitUntilSent();
    nng_close(socket);  // the initial value is no socket, which nng_close() refuses
}

std::string NodePublisher::listen(const std::string& address) {
    const int result = open(address);
    return result == 0 ? std::string() : nng_strerror(result);
}

int NodePublisher::open(const std::string& address) {
    int result = claimAddress(address, lock);
    if (result == 0) {
        result = nng_pub0_open(&socket);
    }
    if (result == 0) {
        result = nng_socket_set_int(socket, NNG_OPT_SENDBUF, kQueuedMessages);
    }
    // Nobody has anything to say to a publisher. Without a limit a peer could have it take memory for a message of any length.
    if (result == 0) {
        result = nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, kVelMsgBytes);
    }
    // ADD_PRE and not ADD_POST: only that one has its REM_POST in every case.
    for (const nng_pipe_ev event : {NNG_PIPE_EV_ADD_PRE, NNG_PIPE_EV_REM_POST}) {
        if (result == 0) {
            result = nng_pipe_notify(socket, event, onConnection, this);
        }
    }
    return result == 0 ? nng_listen(socket, address.c_str(), nullptr, 0) : result;
}

void NodePublisher::onConnection(nng_pipe pipe, nng_pipe_ev event, void* publisher) {
    auto& self = *static_cast<NodePublisher*>(publisher);
    const std::lock_guard<std::mutex> guard(self.mutex);
    if (event == NNG_PIPE_EV_ADD_PRE) {
        self.connections[nng_pipe_id(pipe)] = self.published;
    } else {
        self.connections.erase(nng_pipe_id(pipe));
    }
}

bool NodePublisher::publish(const void* message) {
    ++published;
    // nng_send() only copies from the buffer, its parameter just lacks the const.
    return nng_send(socket, const_cast<void*>(message), kVelMsgBytes, NNG_FLAG_NONBLOCK) == 0;
}

void NodePublisher::waitUntilSent() {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (!allSent() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kWaitStep);
    }
}

bool NodePublisher::allSent() {
    std::unique_lock<std::mutex> guard(mutex);
    const std::map<int, std::uint64_t> current = connections;
    guard.unlock();  // nng has locks of its own, which it may hold while it reports a connection
    if (current.empty()) {
        return true;
    }
    std::map<int, std::uint64_t> sent = sentMessages();
    return std::all_of(current.begin(), current.end(), [&](const auto& connection) {
        return connection.second + sent[connection.first] >= published;
    });
}

}  // namespace kavro
