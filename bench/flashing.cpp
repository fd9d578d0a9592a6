// The flash drivers: the write of a slot, and both processors side by side.
#include <unistd.h>

#include <algorithm>

#include "bench/measurements.h"
#include "bench/sample.h"
#include "bench/timeline.h"
#include "common/flash_driver.h"
#include "upgrade/upgrade_api.h"

namespace bench {
namespace {

constexpr const char* kPartitions = "/dev/disk/by-partlabel/";

// What a person would type: written past the cache, on storage, and read back.
std::string writeAndCompare(const std::string& component, const std::string& partition) {
    const std::string to = kPartitions + partition;
    return "dd if=" + component + " of=" + to +
           " bs=1M oflag=direct conv=notrunc,fsync status=none && cmp -n $(stat -c %s " + component + ") " +
           component + " " + to;
}

// From the beginning of the first job to the end of the last one.
double timeOfJobs() {
    double first = -1;
    double last = -1;
    for (const Span& span : recordedSpans()) {
        if (span.name.compare(0, 4, "mpu ") == 0 || span.name.compare(0, 4, "mcu ") == 0) {
            first = first < 0 ? span.start : std::min(first, span.start);
            last = std::max(last, span.end);
        }
    }
    return last - first;
}

double timeOfFlashing(const std::string& directory, UPGRADE_FLAG_T flag) {
    clearTimeline();
    if (UPGRADE_mpu_mcu(directory, flag, false) != 0) {
        fail("flashing");
    }
    return timeOfJobs();
}

}  // namespace

void measureFlashWrite(const std::string& directory, int rounds) {
    UpgradeMpu driver;
    const auto prepare = [&] {
        ::sync();
        if (driver.preUpgrade(directory, false, true) != 0) {
            fail("preUpgrade");
        }
    };
    comparePairs(
        "flash write", rounds, prepare, [&] { return driver.upgrade() == 0 && driver.postUpgrade() == 0; },
        writeAndCompare(directory + "/Image", "kernel_b") + " && " +
            writeAndCompare(directory + "/cv22_kavro_qz7.dtb", "dtb_b") + " && " +
            writeAndCompare(directory + "/ext4", "rootfs_b"));
}

void measureSideBySide(const std::string& directory, int rounds) {
    UPGRADE_FLAG_T mpu;
    mpu.mpu = true;
    UPGRADE_FLAG_T mcu;
    mcu.mcu = true;
    UPGRADE_FLAG_T both = mpu;
    both.mcu = true;
    for (int round = 0; round < rounds; ++round) {
        const double alone = std::max(timeOfFlashing(directory, mpu), timeOfFlashing(directory, mcu));
        report("side by side", timeOfFlashing(directory, both), alone);
    }
}

}  // namespace bench
