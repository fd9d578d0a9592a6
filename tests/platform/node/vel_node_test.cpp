// The message node as a subscriber and a publisher see it. The device's platform.json names its address.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nng/nng.h>
#include <nng/protocol/pubsub0/sub.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/message_node.h"
#include "tests/platform/captured_log.h"
#include "tests/support/device.h"

namespace {

const std::string kConfig = "/etc/kavro/platform.json";
const std::string kSocketPath = "/tmp/kavro-node.ipc";
const std::string kAddress = "ipc://" + kSocketPath;
constexpr int kReceiveMs = 20000;

using Message = std::array<unsigned char, kVelMsgBytes>;

Message messageOf(unsigned char first) {
    Message message{};
    for (std::size_t index = 0; index < message.size(); ++index) {
        message[index] = static_cast<unsigned char>(first + index);
    }
    return message;
}

void* openNode() {
    return getVelNode(258, "upgrade", 0, 0, 2000);
}

// A subscriber of nng. It has joined when it has received a message: until then the publisher may not know
// it.
class Subscriber {
  public:
    explicit Subscriber(const std::string& topic = "") {
        EXPECT_EQ(nng_sub0_open(&socket), 0);
        EXPECT_EQ(nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, topic.data(), topic.size()), 0);
        EXPECT_EQ(nng_socket_set_ms(socket, NNG_OPT_RECVTIMEO, kReceiveMs), 0);
        EXPECT_EQ(nng_dial(socket, kAddress.c_str(), nullptr, 0), 0);
    }
    ~Subscriber() { nng_close(socket); }
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;

    // The bytes of the next message, "" when none comes.
    std::string receive() {
        std::array<char, 256> buffer{};
        std::size_t size = buffer.size();
        return nng_recv(socket, buffer.data(), &size, 0) == 0 ? std::string(buffer.data(), size)
                                                              : std::string();
    }

  private:
    nng_socket socket{};
};

std::string textOf(const Message& message) {
    return {message.begin(), message.end()};
}

// Publishes until the subscriber has received one of the messages: nng makes a connection known a moment
// later.
std::string publishUntilReceived(void* node, Subscriber& subscriber, const Message& message) {
    std::atomic<bool> received{false};
    std::thread publisher([&] {
        while (!received) {
            EXPECT_EQ(velPublishMsg(node, message.data()), 0);
            usleep(10000);
        }
    });
    std::string text = subscriber.receive();
    received = true;
    publisher.join();
    return text;
}

TEST(VelNode, subscriber_gets_the_sixteen_bytes_as_they_are) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    Subscriber subscriber;
    EXPECT_EQ(publishUntilReceived(node, subscriber, messageOf(0xF7)), textOf(messageOf(0xF7)));
    velDestroyNode(&node);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST(VelNode, subscriber_to_the_first_bytes_gets_only_messages_that_begin_so) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    const Message wanted = messageOf(10);
    Subscriber subscriber(textOf(wanted).substr(0, 4));
    EXPECT_EQ(publishUntilReceived(node, subscriber, wanted), textOf(wanted));
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(velPublishMsg(node, messageOf(99).data()), 0);
        ASSERT_EQ(velPublishMsg(node, wanted.data()), 0);
        ASSERT_EQ(subscriber.receive(), textOf(wanted));
    }
    velDestroyNode(&node);
}

TEST(VelNode, every_subscriber_gets_every_message) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    Subscriber first;
    Subscriber second;
    EXPECT_EQ(publishUntilReceived(node, first, messageOf(1)), textOf(messageOf(1)));
    EXPECT_EQ(publishUntilReceived(node, second, messageOf(1)), textOf(messageOf(1)));
    ASSERT_EQ(velPublishMsg(node, messageOf(2).data()), 0);
    for (Subscriber* subscriber : {&first, &second}) {
        std::string text;
        do {
            text = subscriber->receive();
        } while (text == textOf(messageOf(1)));
        EXPECT_EQ(text, textOf(messageOf(2)));
    }
    velDestroyNode(&node);
}

TEST(VelNode, messages_of_one_thread_arrive_in_order) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    Subscriber subscriber;
    ASSERT_EQ(publishUntilReceived(node, subscriber, messageOf(0)), textOf(messageOf(0)));
    for (unsigned char number = 1; number <= 30; ++number) {
        ASSERT_EQ(velPublishMsg(node, messageOf(number).data()), 0);
    }
    unsigned char expected = 1;
    while (expected <= 30) {
        const std::string text = subscriber.receive();
        if (text == textOf(messageOf(0))) {
            continue;
        }
        ASSERT_EQ(text, textOf(messageOf(expected)));
        ++expected;
    }
    velDestroyNode(&node);
}

TEST(VelNode, subscriber_hears_the_next_publisher_after_the_first_one_ended) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    Subscriber subscriber;
    EXPECT_EQ(publishUntilReceived(node, subscriber, messageOf(1)), textOf(messageOf(1)));
    velDestroyNode(&node);
    node = openNode();
    ASSERT_NE(node, nullptr);
    std::string text;
    do {
        text = publishUntilReceived(node, subscriber, messageOf(2));
    } while (text == textOf(messageOf(1)));
    EXPECT_EQ(text, textOf(messageOf(2)));
    velDestroyNode(&node);
}

TEST(VelNode, publishing_without_any_subscriber_succeeds) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    for (unsigned char number = 0; number < 100; ++number) {
        EXPECT_EQ(velPublishMsg(node, messageOf(number).data()), 0);
    }
    velDestroyNode(&node);
}

TEST(VelNode, null_handles_are_accepted_everywhere) {
    EXPECT_LT(velPublishMsg(nullptr, messageOf(0).data()), 0);
    velDestroyNode(nullptr);
    void* node = nullptr;
    velDestroyNode(&node);
    EXPECT_EQ(node, nullptr);
    EXPECT_TRUE(testsupport::nothingCaptured());
}

TEST(VelNode, null_message_is_not_published) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    EXPECT_LT(velPublishMsg(node, nullptr), 0);
    velDestroyNode(&node);
}

TEST(VelNode, destroying_clears_the_handle_and_frees_the_address) {
    for (int round = 0; round < 3; ++round) {
        void* node = openNode();
        ASSERT_NE(node, nullptr);
        velDestroyNode(&node);
        EXPECT_EQ(node, nullptr);
    }
}

TEST(VelNode, without_an_address_there_is_no_node) {
    testsupport::writeFile(kConfig, "{}");
    EXPECT_EQ(openNode(), nullptr);
    EXPECT_TRUE(testsupport::loggedWith(2, {"getVelNode(upgrade)", kConfig, "names no \"address\""}));
}

TEST(VelNode, unreadable_configuration_is_named_as_the_reason) {
    testsupport::writeFile(kConfig, "{ not json");
    EXPECT_EQ(openNode(), nullptr);
    EXPECT_TRUE(testsupport::loggedWith(2, {"getVelNode(upgrade)", kConfig, "is no JSON"}));
    std::filesystem::remove(kConfig);
    EXPECT_EQ(openNode(), nullptr);
    EXPECT_TRUE(testsupport::loggedWith(2, {"getVelNode(upgrade)", kConfig, "cannot be read: No such file"}));
}

TEST(VelNode, address_that_cannot_be_listened_on_gives_no_node) {
    for (const std::string address : {"ipc:///nowhere/node.ipc", "nonsense", "ipc://"}) {
        testsupport::clearCapturedLog();
        testsupport::writeFile(kConfig, R"({"node": {"address": ")" + address + R"("}})");
        EXPECT_EQ(openNode(), nullptr) << address;
        EXPECT_TRUE(testsupport::loggedWith(2, {"getVelNode(upgrade): " + address + ": "}));
    }
}

TEST(VelNode, address_of_a_living_publisher_gives_no_second_node) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(openNode(), nullptr);
    EXPECT_TRUE(testsupport::loggedWith(2, {kAddress, "Address in use"}));
    Subscriber subscriber;
    EXPECT_EQ(publishUntilReceived(node, subscriber, messageOf(3)), textOf(messageOf(3)))
        << "the first one suffered";
    velDestroyNode(&node);
}

// The peer's side of the connection, without nng: the handshake of a subscriber, then a message of its own.
class RawPeer {
  public:
    RawPeer() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        kSocketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        send(std::string("\0SP\0\0\x21\0\0", 8));
        std::array<char, 8> answer{};
        EXPECT_EQ(recv(fd, answer.data(), answer.size(), MSG_WAITALL), 8);
    }
    ~RawPeer() { close(fd); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    void send(const std::string& bytes) const {
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    // Whether the other side hangs up, which it is given some seconds for.
    [[nodiscard]] bool isHungUpOn() const {
        pollfd poller = {fd, POLLIN, 0};
        char byte = 0;
        return poll(&poller, 1, kReceiveMs) == 1 && read(fd, &byte, 1) <= 0;
    }

  private:
    const int fd;
};

TEST(VelNode, peer_that_announces_a_long_message_is_hung_up_on) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    const RawPeer peer;
    peer.send(std::string("\x01\0\0\0\0\x31\0\0\0", 9));  // of 784 MiB
    EXPECT_TRUE(peer.isHungUpOn());
    Subscriber subscriber;
    EXPECT_EQ(publishUntilReceived(node, subscriber, messageOf(3)), textOf(messageOf(3)));
    velDestroyNode(&node);
}

TEST(VelNode, socket_file_of_a_killed_process_does_not_stop_the_next_one) {
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
    const pid_t child = fork();
    if (child == 0) {
        const char opened = openNode() != nullptr ? 'y' : 'n';
        (void)!write(ready[1], &opened, 1);
        pause();
        _exit(0);
    }
    char opened = '?';
    ASSERT_EQ(read(ready[0], &opened, 1), 1);
    ASSERT_EQ(opened, 'y');
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    ASSERT_TRUE(testsupport::exists(kSocketPath)) << "nothing stale to test with";

    void* node = openNode();
    ASSERT_NE(node, nullptr);
    Subscriber subscriber;
    EXPECT_EQ(publishUntilReceived(node, subscriber, messageOf(4)), textOf(messageOf(4)));
    velDestroyNode(&node);
}

TEST(VelNode, process_that_exits_with_its_node_open_ends) {
    const pid_t child = fork();
    if (child == 0) {
        static void* node = nullptr;  // still in reach at the end, so no leak
        node = openNode();
        const bool published = node != nullptr && velPublishMsg(node, messageOf(0).data()) == 0;
        std::exit(published ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Speaks just enough of the wire protocol to be taken for a subscriber, and then never reads.
int connectSilentSubscriber() {
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocketPath.c_str(), kSocketPath.size());
    EXPECT_EQ(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const std::array<unsigned char, 8> greeting = {0, 'S', 'P', 0, 0, 0x21, 0, 0};
    EXPECT_EQ(write(connection, greeting.data(), greeting.size()), 8);
    std::array<unsigned char, 8> answer{};
    EXPECT_EQ(read(connection, answer.data(), answer.size()), 8);
    EXPECT_EQ(answer[5], 0x20) << "no publisher";
    return connection;
}

// Everything that arrives on a connection to its end.
std::string readToEnd(int connection) {
    std::string text;
    std::array<char, 4096> block{};
    ssize_t count = 0;
    while ((count = read(connection, block.data(), block.size())) > 0) {
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    return text;
}

// On an ipc connection a message stands behind a 1 and its length.
std::string frameOf(const Message& message) {
    return std::string("\x01\0\0\0\0\0\0\0\x10", 9) + textOf(message);
}

TEST(VelNode, messages_that_are_queued_when_the_node_is_closed_arrive) {
    constexpr unsigned char kMessages = 100;
    for (int round = 0; round < 10; ++round) {
        void* node = openNode();
        ASSERT_NE(node, nullptr);
        const int subscriber = connectSilentSubscriber();
        pollfd arrival{subscriber, POLLIN, 0};
        do {
            ASSERT_EQ(velPublishMsg(node, messageOf(0).data()), 0);
        } while (poll(&arrival, 1, 10) == 0);
        std::string expected;
        for (unsigned char number = 1; number <= kMessages; ++number) {
            ASSERT_EQ(velPublishMsg(node, messageOf(number).data()), 0);
            expected += frameOf(messageOf(number));
        }
        velDestroyNode(&node);
        const std::string received = readToEnd(subscriber);
        close(subscriber);
        ASSERT_GT(received.size(), expected.size()) << "round " << round;
        ASSERT_EQ(received.substr(received.size() - expected.size()), expected) << "round " << round;
    }
}

TEST(VelNode, closing_does_not_wait_for_ever_for_a_subscriber_that_does_not_read) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    const int silent = connectSilentSubscriber();
    for (int count = 0; count < 5000; ++count) {
        ASSERT_EQ(velPublishMsg(node, messageOf(0).data()), 0);
    }
    velDestroyNode(&node);
    EXPECT_EQ(node, nullptr);
    close(silent);
}

TEST(VelNode, four_threads_publish_past_a_subscriber_that_does_not_read) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 5000;  // far more than the queues and the socket hold
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    const int silent = connectSilentSubscriber();
    Subscriber reader;
    ASSERT_EQ(publishUntilReceived(node, reader, messageOf(0)), textOf(messageOf(0)));

    std::atomic<int> published{0};
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            const Message message = messageOf(static_cast<unsigned char>(100 + thread));
            for (int count = 0; count < kMessages; ++count) {
                published += velPublishMsg(node, message.data()) == 0 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(published, kThreads * kMessages);
    EXPECT_EQ(publishUntilReceived(node, reader, messageOf(1)).size(), kVelMsgBytes);
    velDestroyNode(&node);
    close(silent);
}

TEST(VelNode, all_descriptors_are_closed_on_exec) {
    void* node = openNode();
    ASSERT_NE(node, nullptr);
    const int silent = connectSilentSubscriber();
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error);
        const bool ofTheNode = target.rfind("socket:", 0) == 0 || target.find("event") != std::string::npos;
        const int flags = fcntl(descriptor, F_GETFD);
        EXPECT_TRUE(!ofTheNode || (flags & FD_CLOEXEC) != 0) << descriptor << " is " << target;
    }
    velDestroyNode(&node);
    close(silent);
}

}  // namespace
