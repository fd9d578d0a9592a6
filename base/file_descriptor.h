// Owner of a file descriptor.
//
// Closing is a cancellation point, and a destructor must not be one: whoever owns a FileDescriptor has a
// CancelHold that was declared before it.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace kavro {

class FileDescriptor {
  public:
    // Takes it over, close-on-exec. Never one of the first three: in a program that has closed its standard output, say, what it
    // prints would end in this file.
    explicit FileDescriptor(int descriptor = -1) : fd(descriptor) {
        if (descriptor >= STDIN_FILENO && descriptor <= STDERR_FILENO) {
            fd = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            (void)::close(descriptor);
        }
    }
    FileDescriptor(FileDescriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~FileDescriptor() { (void)close(); }

    bool valid() const { return fd >= 0; }
    int get() const { return fd; }

    // Returns false when closing brought up an error that no earlier call had reported.
    bool close() {
        const int closing = std::exchange(fd, -1);
        return closing < 0 || ::close(closing) == 0;
    }

  private:
    int fd;
};

}  // namespace kavro
