#include "platform/mcu/spidev_link.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/errno_text.h"
#include "platform/mcu/link_lock.h"

namespace kavro {
namespace {

constexpr std::uint8_t kBitsPerWord = 8;
constexpr std::uint8_t kIdleByte = 0;
constexpr std::size_t kSendBytes =
    1024;  // of one transfer; spidev refuses more than 4096 unless told otherwise
constexpr std::size_t kFetchBytes = 64;
constexpr useconds_t kIdlePauseUs = 1000;

// The master clocks each byte in while it clocks one out. Only a slave that has something to say answers with
// more than zeros, so the master asks by clocking out zeros.
class SpidevLink : public ByteLink {
  public:
    explicit SpidevLink(FileDescriptor opened) : device(std::move(opened)) {}

    bool send(const Bytes& bytes, std::string& error) override {
        for (std::size_t offset = 0; offset < bytes.size(); offset += kSendBytes) {
            const auto begin = bytes.begin() + static_cast<long>(offset);
            const std::size_t size = std::min(kSendBytes, bytes.size() - offset);
            if (!transfer(Bytes(begin, begin + static_cast<long>(size)), error)) {
                return false;
            }
        }
        return true;
    }

    std::optional<Bytes> receive(int timeoutMs, std::string& error) override {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        const Bytes zeros(kFetchBytes, kIdleByte);
        for (;;) {
            if (!arrived.empty()) {
                return std::exchange(arrived, {});
            }
            if (!transfer(zeros, error)) {
                return std::nullopt;
            }
            if (arrived.empty()) {
                if (std::chrono::steady_clock::now() >= deadline) {
                    return Bytes{};
                }
                ::usleep(kIdlePauseUs);
            }
        }
    }

  private:
    // One transfer on the bus; what comes in meanwhile is kept.
    bool transfer(const Bytes& out, std::string& error) {
        Bytes in(out.size());
        spi_ioc_transfer message = {};
        message.tx_buf = reinterpret_cast<std::uintptr_t>(out.data());
        message.rx_buf = reinterpret_cast<std::uintptr_t>(in.data());
        message.len = static_cast<std::uint32_t>(out.size());
        message.speed_hz = kSpiSpeedHz;
        message.bits_per_word = kBitsPerWord;
        if (::ioctl(device.get(), SPI_IOC_MESSAGE(1), &message) < 0) {
            error = errnoText("the transfer on the SPI bus failed", errno);
            return false;
        }
        keep(in);
        return true;
    }

    // Zeros are kept up to the first one behind other bytes, which ends a frame; more of them mean nothing.
    void keep(const Bytes& in) {
        for (const std::uint8_t byte : in) {
            if (byte != kIdleByte || !idle) {
                arrived.push_back(byte);
            }
            idle = byte == kIdleByte;
        }
    }

    FileDescriptor device;
    Bytes arrived;
    bool idle = true;  // the last byte was a zero
};

bool setUp(const FileDescriptor& device) {
    std::uint8_t mode = SPI_MODE_0;
    std::uint8_t bits = kBitsPerWord;
    std::uint32_t speed = kSpiSpeedHz;
    return ::ioctl(device.get(), SPI_IOC_WR_MODE, &mode) == 0 &&
           ::ioctl(device.get(), SPI_IOC_WR_BITS_PER_WORD, &bits) == 0 &&
           ::ioctl(device.get(), SPI_IOC_WR_MAX_SPEED_HZ, &speed) == 0;
}

}  // namespace

std::unique_ptr<ByteLink> openSpidevLink(const std::string& path, std::string& error) {
    FileDescriptor device(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!device.valid()) {
        error = fileError("spidev:" + path, "cannot be opened", errno);
        return nullptr;
    }
    if (!lockLink(device, path, error)) {
        return nullptr;
    }
    if (!setUp(device)) {
        error = fileError("spidev:" + path, "is no SPI device, or cannot be set to mode 0, 8 bits", errno);
        return nullptr;
    }
    return std::make_unique<SpidevLink>(std::move(device));
}

}  // namespace kavro
