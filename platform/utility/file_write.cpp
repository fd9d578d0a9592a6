// writeFile, createFile.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "base/file_io.h"
#include "common/cancellation.h"
#include "common/utility.h"
#include "platform/utility/destination.h"
#include "platform/utility/file_update.h"

namespace COMMON_YR {
namespace {

constexpr mode_t kNewFileMode = 0666;
constexpr unsigned long kMaxSize = LONG_MAX;

}  // namespace

long writeFile(const char* path, void* data, unsigned long size, bool flag) {
    (void)flag;
    const CancelHold hold;
    if (path == nullptr || (data == nullptr && size != 0) || size > kMaxSize) {
        return -1;
    }
    const auto destination = kavro::locateDestination(path);
    if (!destination) {
        return -1;
    }

    const auto length = static_cast<off_t>(size);
    kavro::FileUpdate update;
    if (!update.begin(*destination, length, kNewFileMode, nullptr)) {
        return -1;
    }
    if (!kavro::writeFully(update.fd(), static_cast<const char*>(data), size) || !update.commit(length)) {
        return -1;
    }
    return length;
}

int createFile(const char* path, unsigned long size) {
    const CancelHold hold;
    if (path == nullptr || size > kMaxSize) {
        return -1;
    }
    const auto destination = kavro::locateDestination(path);
    if (!destination || destination->isSpecial()) {
        return -1;
    }

    const char* const name = destination->path.c_str();
    const kavro::FileDescriptor file(open(name, O_WRONLY | O_CREAT | O_CLOEXEC, kNewFileMode));
    if (!file.valid()) {
        return -1;
    }
    if (ftruncate(file.get(), static_cast<off_t>(size)) != 0 || !kavro::flushFile(file.get())) {
        if (!destination->exists) {
            unlink(name);
        }
        return -1;
    }
    return kavro::flushDirectory(kavro::parentDirectory(destination->path)) ? 0 : -1;
}

}  // namespace COMMON_YR
