// The message node, and the calls that reach the microcontroller.
#include "common/message_node.h"

#include <memory>
#include <optional>
#include <string>

#include "common/cancellation.h"
#include "common/node_listener.h"
#include "common/utility.h"
#include "platform/config/platform_config.h"
#include "platform/mcu/mcu_client.h"
#include "platform/node/node_publisher.h"
#include "platform/node/node_subscriber.h"

namespace {

constexpr int kFailed = -1;
constexpr int kError = 1;
constexpr int kNotice = 2;

// Carries out one operation on the microcontroller; a failure is logged at the level. The link is opened for each, since they are
// rare and other programs need it, too.
template <typename Operation>
auto askMcu(const char* caller, int level, const Operation& operation) {
    std::string error;
    const std::unique_ptr<kavro::McuClient> mcu = kavro::connectMcu(kavro::readPlatformConfig(), error);
    const auto result = mcu != nullptr ? operation(*mcu, error) : decltype(operation(*mcu, error)){};
    if (!result) {
        printLog(level, "%s: %s\n", caller, error.c_str());
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
    auto node = std::make_unique<kavro::NodePublisher>();
    const std::string error = node->listen(address);
    if (!error.empty()) {
        printLog(kNotice, "getVelNode(%s): %s: %s\n", publisher, address.c_str(), error.c_str());
        return nullptr;
    }
    return node.release();
}

int velPublishMsg(void* node, const void* message) {
    if (node == nullptr || message == nullptr) {
        return kFailed;
    }
    const COMMON_YR::CancelHold hold;
    return static_cast<kavro::NodePublisher*>(node)->publish(message) ? 0 : kFailed;
}

void velDestroyNode(void** node) {
    if (node == nullptr || *node == nullptr) {
        return;
    }
    const COMMON_YR::CancelHold hold;
    delete static_cast<kavro::NodePublisher*>(*node);
    *node = nullptr;
}

int velSpiDevCtrl(void* node, bool on) {
    (void)node;
    const COMMON_YR::CancelHold hold;
    // Without the link there is no programming; left on, it does no harm.
    const bool done =
        askMcu("velSpiDevCtrl", on ? kError : kNotice,
               [on](kavro::McuClient& mcu, std::string& error) { return mcu.setLink(on, error); });
    return done ? 0 : kFailed;
}

int velGetMcuVersion(void* node) {
    (void)node;
    const COMMON_YR::CancelHold hold;
    const std::optional<int> version =
        askMcu("velGetMcuVersion", kNotice,
               [](kavro::McuClient& mcu, std::string& error) { return mcu.version(error); });
    return version.value_or(kFailed);
}

void* velListen(std::string& address, std::string& error) {
    const COMMON_YR::CancelHold hold;
    if (address.empty()) {
        const kavro::PlatformConfig config = kavro::readPlatformConfig();
        address = config.nodeAddress;
        if (address.empty()) {
            error = kavro::platformConfigError(config, "\"node\" names no \"address\" to listen to");
            return nullptr;
        }
    }
    return kavro::NodeSubscriber::open(address, error).release();
}

bool velReceive(void* listener, int timeoutMs, std::string& message, int& publisher) {
    const COMMON_YR::CancelHold hold;
    std::optional<kavro::NodeMessage> received;
    if (listener != nullptr) {
        received = static_cast<kavro::NodeSubscriber*>(listener)->receive(timeoutMs);
    }
    if (received) {
        message = std::move(received->bytes);
        publisher = received->publisher;
    }
    return received.has_value();
}

void velEndListening(void** listener) {
    if (listener == nullptr || *listener == nullptr) {
        return;
    }
    const COMMON_YR::CancelHold hold;
    delete static_cast<kavro::NodeSubscriber*>(*listener);
    *listener = nullptr;
}
