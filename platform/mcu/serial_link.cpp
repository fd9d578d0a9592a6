#include "platform/mcu/serial_link.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/errno_text.h"
#include "platform/mcu/link_lock.h"
#include "platform/mcu/stream_link.h"

namespace kavro {
namespace {

constexpr speed_t kBaudRate = B921600;

class SerialLink : public StreamLink {
  public:
    explicit SerialLink(FileDescriptor opened) : StreamLink(FileDescriptor(), std::move(opened)) {}

  private:
    long put(int descriptor, const void* bytes, std::size_t size) override {
        return ::write(descriptor, bytes, size);
    }
};

// A read of a byte at least, every byte as it is. What was on the line before belongs to nobody.
bool setUp(const FileDescriptor& device) {
    termios line = {};
    if (::tcgetattr(device.get(), &line) != 0) {
        return false;
    }
    ::cfmakeraw(&line);
    line.c_cflag |= CLOCAL | CREAD;
    line.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS | CSTOPB | HUPCL);
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 0;
    return ::cfsetspeed(&line, kBaudRate) == 0 && ::tcsetattr(device.get(), TCSANOW, &line) == 0 &&
           ::tcflush(device.get(), TCIOFLUSH) == 0;
}

}  // namespace

std::unique_ptr<ByteLink> openSerialLink(const std::string& path, std::string& error) {
    FileDescriptor device(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!device.valid()) {
        error = fileError("serial:" + path, "cannot be opened", errno);
        return nullptr;
    }
    if (!lockLink(device, path, error)) {
        return nullptr;
    }
    if (!setUp(device)) {
        error = fileError("serial:" + path, "is no serial line", errno);
        return nullptr;
    }
    return std::make_unique<SerialLink>(std::move(device));
}

}  // namespace kavro
