// The link over the SPI bus. This program's ioctl() stands for the bus and the microcontroller on it; the device is
// an ordinary file.
#include "platform/mcu/spidev_link.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>

#include "base/file_descriptor.h"
#include "tests/platform/mcu/mcu_test_support.h"
#include "tests/support/device.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro::ByteLink;
using kavro::Bytes;

// What the bus was set to, what the master clocked out, and what the slave has to say: zeros when it is empty.
struct Bus {
    int mode = -1;
    int bits = -1;
    long speed = -1;
    unsigned long failing = 0;  // the request that fails
    std::vector<Bytes> transfers;
    std::deque<std::uint8_t> slave;
};
Bus* bus = nullptr;

int transferOn(const spi_ioc_transfer& message) {
    EXPECT_EQ(message.speed_hz, kavro::kSpiSpeedHz);
    EXPECT_EQ(message.bits_per_word, 8);
    EXPECT_EQ(message.cs_change, 0);
    EXPECT_LE(message.len, 4096U) << "more than spidev takes";
    const auto* out = reinterpret_cast<const std::uint8_t*>(message.tx_buf);
    auto* in = reinterpret_cast<std::uint8_t*>(message.rx_buf);
    bus->transfers.emplace_back(out, out + message.len);
    for (std::uint32_t index = 0; index < message.len; ++index) {
        in[index] = bus->slave.empty() ? 0 : bus->slave.front();
        if (!bus->slave.empty()) {
            bus->slave.pop_front();
        }
    }
    return static_cast<int>(message.len);
}

int control(unsigned long request, void* argument) {
    if (request == bus->failing) {
        errno = EIO;
        return -1;
    }
    switch (request) {
        case SPI_IOC_WR_MODE:
            bus->mode = *static_cast<std::uint8_t*>(argument);
            return 0;
        case SPI_IOC_WR_BITS_PER_WORD:
            bus->bits = *static_cast<std::uint8_t*>(argument);
            return 0;
        case SPI_IOC_WR_MAX_SPEED_HZ:
            bus->speed = *static_cast<std::uint32_t*>(argument);
            return 0;
        case SPI_IOC_MESSAGE(1):
            return transferOn(*static_cast<spi_ioc_transfer*>(argument));
        default:
            errno = ENOTTY;
            return -1;
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request,
                                                            ...) noexcept {
    (void)descriptor;
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (bus == nullptr) {
        errno = ENOTTY;
        return -1;
    }
    return control(request, argument);
}

namespace {

class SpidevLink : public testing::Test {
  protected:
    void SetUp() override {
        testsupport::writeFile(path, "");
        bus = &theBus;
    }
    void TearDown() override { bus = nullptr; }

    std::unique_ptr<ByteLink> open() { return kavro::openByteLink("spidev:" + path, error); }

    void slaveSays(const Bytes& bytes) {
        theBus.slave.insert(theBus.slave.end(), bytes.begin(), bytes.end());
    }

    // All that arrives until nothing does.
    Bytes receiveAll(ByteLink& link) {
        Bytes all;
        for (;;) {
            const auto block = link.receive(0, error);
            EXPECT_TRUE(block) << error;
            if (!block || block->empty()) {
                return all;
            }
            all.insert(all.end(), block->begin(), block->end());
        }
    }

    kavro_test::TempDir directory;
    const std::string path = directory / "spidev1.0";
    Bus theBus;
    std::string error;
};

TEST_F(SpidevLink, sets_the_bus_to_mode_0_8_bits_and_4_mhz) {
    ASSERT_NE(open(), nullptr) << error;
    EXPECT_EQ(theBus.mode, SPI_MODE_0);
    EXPECT_EQ(theBus.bits, 8);
    EXPECT_EQ(theBus.speed, 4000000);
}

TEST_F(SpidevLink, sends_bytes_of_any_number_in_order) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    Bytes bytes(5000);
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = static_cast<std::uint8_t>(index * 3);
    }
    ASSERT_TRUE(link->send(bytes, error)) << error;
    Bytes sent;
    for (const Bytes& transfer : theBus.transfers) {
        sent.insert(sent.end(), transfer.begin(), transfer.end());
    }
    EXPECT_TRUE(sent == bytes);
}

TEST_F(SpidevLink, fetches_by_clocking_zeros_out) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    slaveSays({5, 6, 7, 0});
    EXPECT_EQ(link->receive(0, error), (Bytes{5, 6, 7, 0}));
    ASSERT_EQ(theBus.transfers.size(), 1U);
    EXPECT_EQ(theBus.transfers[0], Bytes(theBus.transfers[0].size(), 0));
}

TEST_F(SpidevLink, receives_nothing_from_a_slave_that_is_idle) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    EXPECT_EQ(link->receive(20, error), Bytes{});
    EXPECT_GT(theBus.transfers.size(), 1U);
}

TEST_F(SpidevLink, fetches_until_the_slave_has_something_to_say) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    slaveSays(Bytes(1000, 0));
    slaveSays({9, 0});
    EXPECT_EQ(link->receive(20000, error), (Bytes{9, 0}));
}

TEST_F(SpidevLink, keeps_what_arrives_while_it_sends) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    slaveSays({0, 5, 6});
    ASSERT_TRUE(link->send({1, 2, 3, 4}, error)) << error;
    EXPECT_EQ(link->receive(0, error), (Bytes{5, 6, 0}));
}

// An answer of any length at any place: its end may be the first byte of a transfer that brings nothing else.
TEST_F(SpidevLink, never_swallows_the_zero_that_ends_a_frame) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    for (std::size_t size = 1; size <= 200; ++size) {
        Bytes frame(size, 0x42);
        frame.push_back(0);
        slaveSays(frame);
        ASSERT_EQ(receiveAll(*link), frame) << size;
    }
}

TEST_F(SpidevLink, that_is_no_spi_device_is_not_opened) {
    bus = nullptr;
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(error,
              "spidev:" + path +
                  ": is no SPI device, or cannot be set to mode 0, 8 bits: Inappropriate ioctl for device");
}

TEST_F(SpidevLink, that_cannot_be_set_up_is_not_opened) {
    for (const unsigned long request : {SPI_IOC_WR_MODE, SPI_IOC_WR_BITS_PER_WORD, SPI_IOC_WR_MAX_SPEED_HZ}) {
        theBus.failing = request;
        EXPECT_EQ(open(), nullptr);
        EXPECT_NE(error.find("Input/output error"), std::string::npos) << error;
    }
}

TEST_F(SpidevLink, that_is_not_there_is_not_opened) {
    EXPECT_EQ(kavro::openByteLink("spidev:/nowhere/spidev1.0", error), nullptr);
    EXPECT_EQ(error, "spidev:/nowhere/spidev1.0: cannot be opened: No such file or directory");
}

TEST_F(SpidevLink, whose_transfer_fails_is_broken) {
    const auto link = open();
    ASSERT_NE(link, nullptr) << error;
    theBus.failing = SPI_IOC_MESSAGE(1);
    EXPECT_FALSE(link->send({1}, error));
    EXPECT_EQ(error, "the transfer on the SPI bus failed: Input/output error");
    EXPECT_EQ(link->receive(0, error), std::nullopt);
    EXPECT_EQ(error, "the transfer on the SPI bus failed: Input/output error");
}

TEST_F(SpidevLink, is_for_one_at_a_time) {
    auto first = open();
    ASSERT_NE(first, nullptr) << error;
    EXPECT_EQ(open(), nullptr);
    EXPECT_EQ(error, path + ": is in use by another program, which talks to the microcontroller");
    first.reset();
    EXPECT_NE(open(), nullptr) << error;
}

}  // namespace
