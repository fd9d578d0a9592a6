// The message node, and the calls that reach the microcontroller.
//
// A node is a publishing socket of nng: whoever dials its address and subscribes gets every message as it was
// given, without an envelope. Publishing hands the message to the socket's queues and returns; a subscriber
// that does not read loses messages, and nobody else notices.
#include "common/message_node.h"

#include <fcntl.h>
#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <sys/file.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <string>

#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/mcu/mcu_client.h"
#include "platform/utility/file_descriptor.h"

namespace {

// Messages kept for one subscriber that is behind: about ten seconds of a busy upgrade.
constexpr int kQueuedMessages = 256;

constexpr int kFailed = -1;
constexpr int kNotice = 2;

const std::string kIpcScheme = "ipc://";
constexpr mode_t kLockMode = 0644;

// Claims an ipc address for one process at a time, by a lock on a file beside the socket. Without it, a
// second process would make the first one unreachable: nng removes the socket's file when listening on it
// failed. The lock ends with its process; the file stays. Returns 0 or an error number of nng.
int claimAddress(const std::string& address, kavro::FileDescriptor& lock) {
    if (address.rfind(kIpcScheme, 0) != 0) {
        return 0;
    }
    const std::string path = address.substr(kIpcScheme.size()) + ".lock";
    lock = kavro::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kLockMode));
    if (!lock.valid()) {
        return NNG_ESYSERR + errno;
    }
    return ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : NNG_EADDRINUSE;
}

// Owns the socket of one node.
class Node {
  public:
    Node() = default;
    ~Node() {
        nng_close(socket);  // the initial value is no socket, which nng_close() refuses
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Returns 0 or an error number of nng.
    int listen(const std::string& address) {
        int result = claimAddress(address, lock);
        if (result == 0) {
            result = nng_pub0_open(&socket);
        }
        if (result == 0) {
            result = nng_socket_set_int(socket, NNG_OPT_SENDBUF, kQueuedMessages);
        }
        return result == 0 ? nng_listen(socket, address.c_str(), nullptr, 0) : result;
    }

    int publish(const void* message) const {
        // nng_send() only copies from the buffer, its parameter just lacks the const.
        return nng_send(socket, const_cast<void*>(message), kVelMsgBytes, NNG_FLAG_NONBLOCK);
    }

  private:
    kavro::FileDescriptor lock;  // released after the socket is closed
    nng_socket socket = NNG_SOCKET_INITIALIZER;
};

// Carries out one operation on the microcontroller; a failure is logged. The link is opened for each, since they are
// rare and other programs need it, too.
template <typename Operation>
auto askMcu(const char* caller, const Operation& operation) {
    std::string error;
    const std::unique_ptr<kavro::McuClient> mcu = kavro::connectMcu(kavro::readPlatformConfig(), error);
    const auto result = mcu != nullptr ? operation(*mcu, error) : decltype(operation(*mcu, error)){};
    if (!result) {
        printLog(kNotice, "%s: %s\n", caller, error.c_str());
    }
    return result;
}

}  // namespace

void* getVelNode(int domain, const char* name, int queue, int flags, int timeoutMs) {
    (void)domain, (void)queue, (void)flags, (void)timeoutMs;
    const COMMON_YR::CancelHold hold;
    const char* publisher = name != nullptr ? name : "";
    const kavro::PlatformConfig config = kavro::readPlatformConfig();
    const std::string& address = config.nodeAddress;
    if (address.empty()) {
        const std::string error = kavro::platformConfigError(config, "\"node\" names no \"address\"");
        printLog(kNotice, "getVelNode(%s): %s\n", publisher, error.c_str());
        return nullptr;
    }
    auto node = std::make_unique<Node>();
    const int result = node->listen(address);
    if (result != 0) {
        printLog(kNotice, "getVelNode(%s): %s: %s\n", publisher, address.c_str(), nng_strerror(result));
        return nullptr;
    }
    return node.release();
}

int velPublishMsg(void* node, const void* message) {
    if (node == nullptr || message == nullptr) {
        return kFailed;
    }
    const COMMON_YR::CancelHold hold;
    return static_cast<const Node*>(node)->publish(message) == 0 ? 0 : kFailed;
}

void velDestroyNode(void** node) {
    if (node == nullptr || *node == nullptr) {
        return;
    }
    const COMMON_YR::CancelHold hold;
    delete static_cast<Node*>(*node);
    *node = nullptr;
}

int velSpiDevCtrl(void* node, bool on) {
    (void)node;
    const COMMON_YR::CancelHold hold;
    const bool done = askMcu("velSpiDevCtrl", [on](kavro::McuClient& mcu, std::string& error) {
        return mcu.setLink(on, error);
    });
    return done ? 0 : kFailed;
}

int velGetMcuVersion(void* node) {
    (void)node;
    const COMMON_YR::CancelHold hold;
    const std::optional<int> version =
        askMcu("velGetMcuVersion",
               [](kavro::McuClient& mcu, std::string& error) { return mcu.version(error); });
    return version.value_or(kFailed);
}
