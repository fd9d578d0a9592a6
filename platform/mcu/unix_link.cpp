#include "platform/mcu/unix_link.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/errno_text.h"
#include "platform/mcu/link_lock.h"
#include "platform/mcu/stream_link.h"

namespace kavro {
namespace {

constexpr mode_t kLockMode = 0644;

class UnixLink : public StreamLink {
  public:
    using StreamLink::StreamLink;

  private:
    long put(int descriptor, const void* bytes, std::size_t size) override {
        return ::send(descriptor, bytes, size, MSG_NOSIGNAL);
    }
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
