#include "twin/emulator/socket_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/errno_text.h"

namespace kavro::emulator {
namespace {

constexpr int kWaitingConnections = 8;
constexpr const char* kUnfinished = ".new";  // a socket that is not listened on yet
constexpr std::size_t kReadBytes = 4096;

Time now() {
    return std::chrono::steady_clock::now();
}

FileDescriptor newSocket() {
    return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// Whether nothing is there, or a socket on which nobody listens any more.
bool isReplaceable(const std::string& path, std::string& error) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return true;
    }
    if (!S_ISSOCK(status.st_mode)) {
        error = fileError(path, "is no socket and stays as it is", 0);
        return false;
    }
    const FileDescriptor probe = newSocket();
    const sockaddr_un address = addressOf(path);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        error = fileError(path, "is in use by another program", 0);
        return false;
    }
    return true;
}

}  // namespace

SocketServer::~SocketServer() {
    if (listener.valid()) {
        (void)::unlink(socketPath.c_str());
    }
}

bool SocketServer::listen(const std::string& path, std::string& error) {
    const std::string unfinished = path + kUnfinished;
    const std::size_t longest = sizeof(sockaddr_un::sun_path) - 1 - std::strlen(kUnfinished);
    if (path.empty() || path.size() > longest) {
        error =
            fileError(path, "is no path for a socket: 1 to " + std::to_string(longest) + " characters", 0);
        return false;
    }
    if (!isReplaceable(path, error)) {
        return false;
    }
    (void)::unlink(unfinished.c_str());
    const sockaddr_un address = addressOf(unfinished);
    FileDescriptor made = newSocket();
    if (!made.valid() ||
        ::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(made.get(), kWaitingConnections) != 0) {
        error = fileError(path, "cannot be listened on", errno);
        return false;
    }
    listener = std::move(made);
    socketPath = unfinished;
    finalPath = path;
    return true;
}

bool SocketServer::appear(std::string& error) {
    if (std::rename(socketPath.c_str(), finalPath.c_str()) != 0) {
        error = fileError(finalPath, "cannot be replaced", errno);
        return false;
    }
    socketPath = finalPath;
    return true;
}

bool SocketServer::serve(LinkEnd& end, const std::function<bool()>& goOn, int wake, Milliseconds atMost,
                         std::string& error) {
    while (goOn()) {
        std::array<pollfd, 3> waits{{
            {wake, POLLIN, 0},
            {connection.valid() ? -1 : listener.get(), POLLIN, 0},
            {busy() ? -1 : connection.get(), POLLIN, 0},
        }};
        if (::poll(waits.data(), waits.size(), waitTime(atMost)) < 0 && errno != EINTR) {
            error = fileError(socketPath, "cannot be waited for", errno);
            return false;
        }
        sendDue();
        if (waits[1].revents != 0) {
            acceptConnection();
        }
        if (waits[2].revents != 0) {
            receive();
        }
        answerReceived(end);
    }
    return true;
}

int SocketServer::waitTime(Milliseconds atMost) const {
    if (!busy()) {
        return static_cast<int>(atMost.count());
    }
    // Rounded up, so that it is due when the wait is over.
    const auto left = std::chrono::ceil<Milliseconds>(outputs.front().due - now());
    return static_cast<int>(std::clamp(left, Milliseconds(0), atMost).count());
}

void SocketServer::acceptConnection() {
    connection = FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

void SocketServer::receive() {
    std::array<std::uint8_t, kReadBytes> bytes{};
    const ssize_t count = ::recv(connection.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count > 0) {
        received.insert(received.end(), bytes.begin(), bytes.begin() + count);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        hangUp();
    }
}

void SocketServer::answerReceived(LinkEnd& end) {
    while (!busy() && !received.empty()) {
        const std::uint8_t byte = received.front();
        received.pop_front();
        if (const std::optional<Frame> frame = reader.take(byte)) {
            const std::vector<Output> answers = end.take(*frame, now());
            outputs.assign(answers.begin(), answers.end());
            sendDue();
        }
    }
}

// A program that does not fetch its answers loses them, as on a bus: nobody waits for it.
void SocketServer::sendDue() {
    while (busy() && outputs.front().due <= now()) {
        const Output output = std::move(outputs.front());
        outputs.pop_front();
        if (::send(connection.get(), output.bytes.data(), output.bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) <
                0 &&
            errno != EAGAIN) {
            hangUp();
        }
    }
}

// What was on its way is gone with the connection.
void SocketServer::hangUp() {
    connection = FileDescriptor();
    received.clear();
    reader = FrameReader();
    outputs.clear();
}

}  // namespace kavro::emulator
