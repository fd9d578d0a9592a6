// Reader of the device's platform.json: which hardware the platform libraries work on.
//
// The file is a JSON object; every member may be missing. Unknown members are ignored, so that a newer file
// suits an older library.
//
//     {
//       "log":  { "syslog": true, "stderr": false, "file": "/tmp/kavro.log", "file_bytes": 1048576 },
//       "node": { "address": "ipc:///tmp/kavro-node.ipc" },
//       "mpu": {
//         "slots": {
//           "a": { "kernel": "PATH", "dtb": "PATH", "rootfs": "PATH" },
//           "b": { "kernel": "PATH", "dtb": "PATH", "rootfs": "PATH" }
//         },
//         "bootloader": "PATH",
//         "boot_environment": "/etc/kavro/fw_env.config",
//         "written_slot": "/config/written_slot.json",
//         "running_slot": "/run/kavro/running_slot"
//       },
//       "mcu": { "link": "spidev:/dev/spidev1.0", "repair": true }
//     }
//
// Partitions are block devices on a device and image files in a twin.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/config/slot_part.h"

namespace kavro {

inline constexpr const char* kPlatformConfigPath = "/etc/kavro/platform.json";

using SlotPartitions = PerSlotPart<std::string>;  // paths

struct PlatformConfig {
    std::string fault;  // why nothing was read; empty when the file is a JSON object, whatever it holds
    std::vector<std::string>
        wrongMembers;  // of another type than they must have: "mpu.bootloader must be a string"
    bool logToSyslog = true;
    bool logToStderr = false;
    std::string logFile;  // empty: no log file
    long long logFileBytes = 1 << 20;
    std::string nodeAddress;                      // empty: no message node
    std::map<std::string, SlotPartitions> slots;  // by slot name
    std::string bootloaderPartition;
    std::string bootEnvironmentConfig;  // says where U-Boot's environment is, in the form of fw_env.config
    std::string writtenSlotFile;        // what is known about a slot that was written and not yet activated
    std::string runningSlotFile;        // names the slot that was started; written at boot
    std::string mcuLink;                // "spidev:PATH", "serial:PATH" or "unix:PATH"
    bool mcuRepair = true;  // a start programs it when it has not the firmware of the running release
};

// Reads the file anew at each call. A missing or damaged file, or a member of the wrong type, gives the
// defaults above for what could not be read; `fault` tells of the first two, `wrongMembers` of the last. Never
// throws, except for exhausted memory; not a cancellation point.
PlatformConfig readPlatformConfig(const std::string& path = kPlatformConfigPath);

// What to say when something is missing in the device's file: the path and `what`, or in its place the fault
// that made everything missing.
std::string platformConfigError(const PlatformConfig& config, const std::string& what);

// The first wrong member of a section ("mpu"), or the section itself; empty when all of it is as it must be.
std::string wrongMemberOf(const PlatformConfig& config, const std::string& section);

}  // namespace kavro
