#include "platform/mcu/unix_link.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/mcu/link_lock.h"
#include "platform/mcu/raw_file.h"

namespace kavro {
namespace {

constexpr int kSendMs =
    500;  // a frame fits into the socket's buffer: only one who does not read lets it wait
constexpr mode_t kLockMode = 0644;

class UnixLink : public ByteLink {
  public:
    UnixLink(FileDescriptor lockFile, FileDescriptor connected)
        : lock(std::move(lockFile)), connection(std::move(connected)) {}

    bool send(const Bytes& bytes, std::string& error) override {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t count =
                ::send(connection.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (count >= 0) {
                done += static_cast<std::size_t>(count);
            } else if (errno != EAGAIN && errno != EINTR) {
                error = errnoText("sending failed", errno);
                return false;
            } else if (!await(POLLOUT, kSendMs)) {
                error = "the microcontroller takes no data";
                return false;
            }
        }
        return true;
    }

    std::optional<Bytes> receive(int timeoutMs, std::string& error) override {
        if (!await(POLLIN, timeoutMs)) {
            return Bytes{};
        }
        std::array<std::uint8_t, 1024> block;
        const ssize_t count = ::recv(connection.get(), block.data(), block.size(), 0);
        if (count > 0) {
            return Bytes(block.begin(), block.begin() + count);
        }
        error = count == 0 ? "the microcontroller has closed the connection"
                           : errnoText("receiving failed", errno);
        return std::nullopt;
    }

  private:
    // Whether the socket is ready within the time. One that broke is ready: the call that follows tells.
    [[nodiscard]] bool await(short events, int timeoutMs) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        pollfd descriptor = {connection.get(), events, 0};
        int remainingMs = timeoutMs;
        int ready = -1;
        while ((ready = ::poll(&descriptor, 1, remainingMs)) < 0 && errno == EINTR) {
            const auto remaining = deadline - std::chrono::steady_clock::now();
            const auto wholeMs = std::chrono::duration_cast<std::chrono::milliseconds>(remaining).count();
            remainingMs = static_cast<int>(std::max<long>(wholeMs, 0));
        }
        return ready > 0;
    }

    FileDescriptor lock;  // released after the connection is closed
    FileDescriptor connection;
};

// Does not wait: a listener with a full queue, which does not accept, is none.
bool connectTo(const std::string& path, FileDescriptor& connection) {
    connection = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection.valid()) {
        return false;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::unique_ptr<ByteLink> openUnixLink(const std::string& path, std::string& error) {
    const std::string lockPath = path + ".lock";
    FileDescriptor lock(::open(lockPath.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, kLockMode));
    if (!lock.valid()) {
        error = fileError(lockPath, "cannot be opened", errno);
        return nullptr;
    }
    if (!lockLink(lock, lockPath, error)) {
        return nullptr;
    }
    FileDescriptor connection;
    if (!connectTo(path, connection)) {
        error = fileError("unix:" + path, "no microcontroller listens", errno);
        return nullptr;
    }
    return std::make_unique<UnixLink>(std::move(lock), std::move(connection));
}

}  // namespace kavro
