#include "platform/mcu/stream_link.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "base/errno_text.h"

namespace kavro {
namespace {

constexpr int kSendMs = 500;  // a frame fits into the buffers: only one who does not read lets it wait

}  // namespace

StreamLink::StreamLink(FileDescriptor lockFile, FileDescriptor opened)
    : lock(std::move(lockFile)), stream(std::move(opened)) {}

bool StreamLink::send(const Bytes& bytes, std::string& error) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const long count = put(stream.get(), bytes.data() + done, bytes.size() - done);
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

std::optional<Bytes> StreamLink::receive(int timeoutMs, std::string& error) {
    if (!await(POLLIN, timeoutMs)) {
        return Bytes{};
    }
    std::array<std::uint8_t, 1024> block;
    const ssize_t count = ::read(stream.get(), block.data(), block.size());
    if (count > 0) {
        return Bytes(block.begin(), block.begin() + count);
    }
    error =
        count == 0 ? "the microcontroller has closed the connection" : errnoText("receiving failed", errno);
    return std::nullopt;
}

bool StreamLink::await(short events, int timeoutMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd descriptor = {stream.get(), events, 0};
    int remainingMs = timeoutMs;
    int ready = -1;
    while ((ready = ::poll(&descriptor, 1, remainingMs)) < 0 && errno == EINTR) {
        const auto remaining = deadline - std::chrono::steady_clock::now();
        const auto wholeMs = std::chrono::duration_cast<std::chrono::milliseconds>(remaining).count();
        remainingMs = static_cast<int>(std::max<long>(wholeMs, 0));
    }
    return ready > 0;
}

}  // namespace kavro
