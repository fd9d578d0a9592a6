// What the links over a stream of bytes have in common, a socket and a serial line: waiting for it, a bounded time.
#pragma once

#include <string>

#include "base/file_descriptor.h"
#include "platform/mcu/byte_link.h"

namespace kavro {

class StreamLink : public ByteLink {
  public:
    // The stream does not block. The lock is released after the stream is closed; it is none where the stream is
    // locked itself.
    StreamLink(FileDescriptor lockFile, FileDescriptor opened);

    [[nodiscard]] bool send(const Bytes& bytes, std::string& error) override;
    std::optional<Bytes> receive(int timeoutMs, std::string& error) override;

  private:
    // Whether the stream is ready within the time. One that broke is ready: the call that follows tells.
    [[nodiscard]] bool await(short events, int timeoutMs) const;

    // As write(2), without a signal when nobody reads any more.
    virtual long put(int descriptor, const void* bytes, std::size_t size) = 0;

    FileDescriptor lock;
    FileDescriptor stream;
};

}  // namespace kavro
