// The link over a serial line. A pseudo-terminal stands for it: the microcontroller is at its other end.
#include "platform/mcu/serial_link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <numeric>

#include "base/file_descriptor.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro::ByteLink;
using kavro::Bytes;
using kavro::FileDescriptor;

constexpr int kLongMs = 20000;

class SerialLink : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(end.valid());
        ASSERT_EQ(grantpt(end.get()), 0);
        ASSERT_EQ(unlockpt(end.get()), 0);
        path = ptsname(end.get());
        held = FileDescriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_TRUE(held.valid());
    }

    std::unique_ptr<ByteLink> open() { return kavro::openByteLink("serial:" + path, error); }

    // Waits until so many bytes have arrived at the other end, or for ever.
    [[nodiscard]] Bytes heard(std::size_t size) const {
        Bytes bytes;
        while (bytes.size() < size) {
            Bytes block(size - bytes.size());
            const ssize_t count = read(end.get(), block.data(), block.size());
            if (count <= 0) {
                break;
            }
            bytes.insert(bytes.end(), block.begin(), block.begin() + count);
        }
        return bytes;
    }

    [[nodiscard]] Bytes received(ByteLink& link, std::size_t size) {
        Bytes bytes;
        while (bytes.size() < size) {
            const auto block = link.receive(kLongMs, error);
            if (!block || block->empty()) {
                break;
            }
            bytes.insert(bytes.end(), block->begin(), block->end());
        }
        return bytes;
    }

    FileDescriptor end{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    FileDescriptor held;  // without it the line would end with the first link
    std::string path;
    std::string error;
};

Bytes everyByte() {
    Bytes bytes(256);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

TEST_F(SerialLink, carries_every_byte_as_it_is_in_both_directions) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    ASSERT_TRUE(link->send(everyByte(), error)) << error;
    EXPECT_EQ(heard(256), everyByte());
    ASSERT_EQ(write(end.get(), everyByte().data(), 256), 256);
    EXPECT_EQ(received(*link, 256), everyByte());
}

TEST_F(SerialLink, sets_the_line) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    termios line{};
    ASSERT_EQ(tcgetattr(held.get(), &line), 0);
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B921600));
    EXPECT_EQ(cfgetispeed(&line), static_cast<speed_t>(B921600));
    EXPECT_EQ(line.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(line.c_cflag & (PARENB | CSTOPB | CRTSCTS | HUPCL), 0U);
    EXPECT_EQ(line.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(line.c_iflag & (IXON | IXOFF | ICRNL), 0U);
    EXPECT_EQ(line.c_lflag & (ICANON | ECHO | ISIG), 0U);
}

TEST_F(SerialLink, forgets_what_was_on_the_line_before) {
    ASSERT_EQ(write(end.get(), "old\n", 4), 4);
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    ASSERT_EQ(write(end.get(), "new", 3), 3);
    EXPECT_EQ(received(*link, 3), (Bytes{'n', 'e', 'w'}));
}

TEST_F(SerialLink, receives_nothing_when_nothing_comes) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    EXPECT_EQ(link->receive(0, error), Bytes{});
    EXPECT_EQ(link->receive(20, error), Bytes{});
}

TEST_F(SerialLink, whose_other_side_does_not_read_takes_no_data_for_ever) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    EXPECT_FALSE(link->send(Bytes(1 << 20), error));
    EXPECT_EQ(error, "the microcontroller takes no data");
}

TEST_F(SerialLink, that_has_hung_up_is_broken) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    end = FileDescriptor();
    EXPECT_EQ(link->receive(kLongMs, error), std::nullopt);
    EXPECT_EQ(error, "the microcontroller has closed the connection");
    EXPECT_FALSE(link->send(Bytes(10), error));
    EXPECT_EQ(error, "sending failed: Input/output error");
}

TEST_F(SerialLink, is_for_one_at_a_time) {
    auto first = open();
    ASSERT_NE(first, nullptr) << error;
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(error, path + ": is in use by another program, which talks to the microcontroller");
    first.reset();
    EXPECT_NE(open(), nullptr) << error;
}

TEST_F(SerialLink, to_what_is_not_there_or_no_serial_line_is_not_opened) {
    const kavro_test::TempDir directory;
    path = directory / "file";
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(error, "serial:" + path + ": cannot be opened: No such file or directory");
    const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(error, "serial:" + path + ": is no serial line: Inappropriate ioctl for device");
}

}  // namespace
