// Addresses of links, and the link over a socket. Those over the SPI bus and a serial line have files of their own.
#include "platform/mcu/byte_link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "base/file_descriptor.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro::ByteLink;
using kavro::Bytes;
using kavro::FileDescriptor;
using kavro::LinkAddress;

constexpr int kLongMs = 20000;

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

// The other side: a socket that listens.
class Listener {
  public:
    explicit Listener(const std::string& path) : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket.get(), 1), 0);
    }
    [[nodiscard]] FileDescriptor accept() const {
        return FileDescriptor(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

  private:
    FileDescriptor socket;
};

class UnixLink : public testing::Test {
  protected:
    std::unique_ptr<ByteLink> open() { return kavro::openByteLink("unix:" + path, error); }

    void expectNotOpened(const std::string& reason) {
        EXPECT_EQ(open(), nullptr);
        EXPECT_EQ(error, reason);
    }

    kavro_test::TempDir directory;
    const std::string path = directory / "link";
    const std::string lockPath = path + ".lock";
    std::string error;
};

TEST(LinkAddresses, are_of_three_kinds) {
    std::string error;
    const auto spi = kavro::parseLinkAddress("spidev:/dev/spidev1.0", error);
    ASSERT_TRUE(spi) << error;
    EXPECT_EQ(spi->kind, LinkAddress::Kind::kSpidev);
    EXPECT_EQ(spi->path, "/dev/spidev1.0");
    const auto serial = kavro::parseLinkAddress("serial:/dev/ttyS1", error);
    ASSERT_TRUE(serial) << error;
    EXPECT_EQ(serial->kind, LinkAddress::Kind::kSerial);
    EXPECT_EQ(serial->path, "/dev/ttyS1");
    const auto local = kavro::parseLinkAddress("unix:/dev/kavro-mcu/link", error);
    ASSERT_TRUE(local) << error;
    EXPECT_EQ(local->kind, LinkAddress::Kind::kUnix);
    EXPECT_EQ(local->path, "/dev/kavro-mcu/link");
    EXPECT_TRUE(kavro::parseLinkAddress("unix:/" + std::string(106, 'x'), error)) << error;
}

TEST(LinkAddresses, of_another_form_are_refused_with_the_reason) {
    const struct {
        std::string address;
        std::string reason;
    } rows[] = {
        {"", "\"\" is none of \"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\""},
        {"/dev/spidev1.0",
         "\"/dev/spidev1.0\" is none of \"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\""},
        {"UNIX:/x", "\"UNIX:/x\" is none of \"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\""},
        {"tcp:host",
         "\"tcp:host\" is none of \"spidev:/dev/spidevB.C\", \"serial:/dev/ttyN\", \"unix:PATH\""},
        {"spidev:", "spidev:: the path does not begin with '/'"},
        {"serial:ttyS1", "serial:ttyS1: the path does not begin with '/'"},
        {"unix:link", "unix:link: the path does not begin with '/'"},
        {"unix:/" + std::string(107, 'x'),
         "unix:/" + std::string(107, 'x') + ": the path of a socket has at most 107 characters"},
    };
    for (const auto& row : rows) {
        std::string error;
        EXPECT_FALSE(kavro::parseLinkAddress(row.address, error));
        EXPECT_EQ(error, row.reason);
        EXPECT_EQ(kavro::openByteLink(row.address, error), nullptr);
        EXPECT_EQ(error, row.reason);
    }
}

TEST_F(UnixLink, carries_bytes_in_both_directions) {
    const Listener listener(path);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    const FileDescriptor other = listener.accept();
    ASSERT_TRUE(link->send({1, 0, 255}, error)) << error;
    Bytes heard(3);
    ASSERT_EQ(recv(other.get(), heard.data(), heard.size(), MSG_WAITALL), 3);
    EXPECT_EQ(heard, (Bytes{1, 0, 255}));
    ASSERT_EQ(write(other.get(), "\0\x07", 2), 2);
    EXPECT_EQ(link->receive(kLongMs, error), (Bytes{0, 7}));
}

TEST_F(UnixLink, receives_nothing_when_nothing_comes) {
    const Listener listener(path);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    EXPECT_EQ(link->receive(0, error), Bytes{});
    EXPECT_EQ(link->receive(20, error), Bytes{});
}

TEST_F(UnixLink, that_the_other_side_closed_is_broken) {
    const Listener listener(path);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    (void)listener.accept();
    EXPECT_EQ(link->receive(kLongMs, error), std::nullopt);
    EXPECT_EQ(error, "the microcontroller has closed the connection");
    EXPECT_FALSE(link->send(Bytes(10), error));
    EXPECT_EQ(error, "sending failed: Broken pipe");
}

TEST_F(UnixLink, whose_other_side_does_not_read_takes_no_data_for_ever) {
    const Listener listener(path);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    EXPECT_FALSE(link->send(Bytes(16 << 20), error));
    EXPECT_EQ(error, "the microcontroller takes no data");
}

TEST_F(UnixLink, to_nobody_is_not_opened) {
    expectNotOpened("unix:" + path + ": no microcontroller listens: No such file or directory");
    { const Listener listener(path); }
    expectNotOpened("unix:" + path + ": no microcontroller listens: Connection refused");
}

TEST_F(UnixLink, to_one_who_does_not_accept_is_not_opened) {
    const Listener listener(path);
    std::vector<FileDescriptor> waiting;
    const sockaddr_un address = addressOf(path);
    for (;;) {
        waiting.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            break;
        }
    }
    expectNotOpened("unix:" + path + ": no microcontroller listens: Resource temporarily unavailable");
}

TEST_F(UnixLink, without_a_directory_for_its_lock_is_not_opened) {
    const std::string nowhere = directory / "nowhere/link";
    EXPECT_EQ(kavro::openByteLink("unix:" + nowhere, error), nullptr);
    EXPECT_EQ(error, nowhere + ".lock: cannot be opened: No such file or directory");
}

TEST_F(UnixLink, is_for_one_at_a_time) {
    const Listener listener(path);
    auto first = open();
    ASSERT_NE(first, nullptr) << error;
    expectNotOpened(lockPath + ": is in use by another program, which talks to the microcontroller");
    first.reset();
    EXPECT_NE(open(), nullptr) << error;
}

TEST_F(UnixLink, waits_for_another_one_to_let_go) {
    const Listener listener(path);
    auto first = open();
    ASSERT_NE(first, nullptr) << error;
    std::thread second([&] { EXPECT_NE(open(), nullptr) << error; });
    usleep(100000);
    first.reset();
    second.join();
}

TEST_F(UnixLink, is_closed_on_exec) {
    const Listener listener(path);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = std::filesystem::read_symlink(entry.path(), ignored);
        if (target == std::filesystem::canonical(lockPath) || target.rfind("socket:", 0) == 0) {
            ++found;
            EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
        }
    }
    EXPECT_GE(found, 3) << "lock, link and listener";
}

}  // namespace
