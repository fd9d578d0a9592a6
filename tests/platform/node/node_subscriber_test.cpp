// The receiving end of the message node.
#include "platform/node/node_subscriber.h"

#include <gtest/gtest.h>
#include <nng/protocol/pubsub0/pub.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "common/message_node.h"

namespace {

constexpr const char* kAddress = "ipc:///tmp/kavro-node.ipc";
constexpr int kLongWaitMs = 60000;
constexpr int kShortWaitMs = 50;

// Another process that publishes without a pause. As on a device, it is not the one that listens: the sockets of a process
// end one after the other.
class Publisher {
  public:
    Publisher() : pid(fork()) {
        if (pid == 0) {
            publish();
        }
        EXPECT_GT(pid, 0);
    }
    ~Publisher() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

  private:
    [[noreturn]] static void publish() {
        void* node = getVelNode(258, "test", 0, 0, 2000);
        const std::string message("\x65\x10\0\0\x0c\0\0\0\x02\0\0\0\x01\0\0\0", 16);
        while (velPublishMsg(node, message.data()) == 0) {
        }
        _exit(1);
    }

    pid_t pid;
};

TEST(NodeSubscriber, ends_while_messages_come_in) {
    const Publisher publisher;
    for (int i = 0; i < 100; ++i) {
        std::string error;
        const auto subscriber = kavro::NodeSubscriber::open(kAddress, error);
        ASSERT_NE(subscriber, nullptr) << error;
        ASSERT_TRUE(subscriber->receive(kLongWaitMs));
    }
}

// Any program may listen where no device does.
TEST(NodeSubscriber, takes_no_message_that_is_longer_than_a_node_s) {
    nng_socket publisher{};
    ASSERT_EQ(nng_pub0_open(&publisher), 0);
    ASSERT_EQ(nng_listen(publisher, kAddress, nullptr, 0), 0);
    std::string error;
    const auto subscriber = kavro::NodeSubscriber::open(kAddress, error);
    ASSERT_NE(subscriber, nullptr) << error;
    std::string shortest(kVelMsgBytes, 'm');
    std::string longer(kVelMsgBytes + 1, 'l');
    std::optional<kavro::NodeMessage> received;
    for (int i = 0; i < 100 && !received; ++i) {  // until they are connected
        EXPECT_EQ(nng_send(publisher, longer.data(), longer.size(), 0), 0);
        EXPECT_EQ(nng_send(publisher, shortest.data(), shortest.size(), 0), 0);
        received = subscriber->receive(kShortWaitMs);
        EXPECT_NE(received ? received->bytes : "", longer);
    }
    nng_close(publisher);
}

TEST(NodeSubscriber, says_what_is_wrong_with_an_address) {
    std::string error;
    EXPECT_EQ(kavro::NodeSubscriber::open("nonsense", error), nullptr);
    EXPECT_FALSE(error.empty());
}

}  // namespace
