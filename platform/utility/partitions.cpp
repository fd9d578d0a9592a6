// checkPartitions.

#include <sys/statvfs.h>

#include "common/cancellation.h"
#include "common/utility.h"

namespace COMMON_YR {
namespace {

// The capacity in bytes of the file system at path; negative when there is none.
long long capacityOf(const std::string& path) {
    struct statvfs fileSystem;
    if (statvfs(path.c_str(), &fileSystem) != 0) {
        return -1;
    }
    return static_cast<long long>(fileSystem.f_blocks) * static_cast<long long>(fileSystem.f_frsize);
}

bool isUsable(const UpgradePartsLimit& row) {
    const long long capacity = capacityOf(row.path);
    if (capacity < 0) {
        return false;
    }
    if (capacity < row.nominalBytes) {
        printLog(2, "partition %s has %lld bytes, less than its nominal %lld\n", row.path.c_str(), capacity,
                 row.nominalBytes);
    }
    return capacity >= row.minimumBytes;
}

}  // namespace

int checkPartitions(const UpgradePartsLimit* rows, unsigned long count, bool flag) {
    (void)flag;
    const CancelHold hold;
    if (rows == nullptr) {
        return count == 0 ? 0 : -1;
    }
    int result = 0;
    for (unsigned long i = 0; i < count; ++i) {
        if (!isUsable(rows[i])) {
            result = -1;
        }
    }
    return result;
}

}  // namespace COMMON_YR
