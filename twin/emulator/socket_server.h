// The link as a unix stream socket: what an SPI bus is on a device. One program at a time is connected; that it
// changes does not concern the microcontroller.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "base/file_descriptor.h"
#include "platform/mcu/frame.h"
#include "twin/emulator/link_end.h"

namespace kavro::emulator {

class SocketServer {
  public:
    SocketServer() = default;
    // Removes the socket.
    ~SocketServer();
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    // Makes the socket, under another name beside the path; one that a program which has ended left behind at
    // the path does no harm.
    [[nodiscard]] bool listen(const std::string& path, std::string& error);

    // Puts the socket in its place: whoever finds it there can connect, and be answered.
    [[nodiscard]] bool appear(std::string& error);

    // Takes frames to this end of the link until goOn, which is asked before each wait, returns false. It waits
    // at most `atMost`, less when the descriptor `wake` becomes readable.
    [[nodiscard]] bool serve(LinkEnd& end, const std::function<bool()>& goOn, int wake, Milliseconds atMost,
                             std::string& error);

  private:
    void acceptConnection();
    void receive();
    void answerReceived(LinkEnd& end);
    void sendDue();
    void hangUp();
    [[nodiscard]] bool busy() const { return !outputs.empty(); }
    [[nodiscard]] int waitTime(Milliseconds atMost) const;

    std::string socketPath;  // where it is now
    std::string finalPath;
    FileDescriptor listener;
    FileDescriptor connection;
    std::deque<std::uint8_t> received;  // and not yet looked at
    FrameReader reader;
    std::deque<Output> outputs;
};

}  // namespace kavro::emulator
