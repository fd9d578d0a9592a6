// Version records, the JSON files that hold them, and the rule that decides what to flash.
#pragma once

#include <cstdint>
#include <string>

#include "common/export.h"

// The versions of the device's pieces. In a version file they are the members "hw_version", "mpu_version",
// "mcu_version" and "bld_version".
struct L_VERSION_T {
    int32_t hw = 0;   // hardware
    int32_t mpu = 0;  // main processor's software
    int32_t mcu = 0;  // microcontroller's firmware; -1 marks a flash that began and did not finish
    int32_t bld = 0;  // bootloader
};

// What a run flashes. The order differs from that of the log lines: it is the layout that others copy.
struct UPGRADE_FLAG_T {
    bool bld = false;  // bootloader
    bool mpu = false;  // main processor
    bool mcu = false;  // microcontroller
};

// Reads a version file. Returns 0; -2 when there is no such file; -1 when a member cannot be read, the fields
// before it already filled.
KAVRO_EXPORT int UPGRADE_read_target_version(L_VERSION_T& version, std::string path);

// Writes all four members into a version file, which starts as a copy of the factory version file when it is
// missing. Returns 0; -1 on failure, when members before the failing one stay written. Blocks until the file
// is on storage.
KAVRO_EXPORT int UPGRADE_write_target_version(L_VERSION_T& version, std::string path);

// Decides what to flash: the main processor always, bootloader and microcontroller when the package's version
// differs from the installed one, in either direction. hw and rollback play no part. Always returns 0.
KAVRO_EXPORT int UPGRADE_set_upgrade_flag(UPGRADE_FLAG_T& flag, L_VERSION_T current, L_VERSION_T package,
                                          bool rollback);

// The factory versions as "V01.104.007.002" (hw, mpu, mcu, bld). 0, or -1 with text untouched.
KAVRO_EXPORT int UPGRADE_getIntervalVersionString(std::string& text);

// The current versions in the same form, the microcontroller's as it answers. 0, or -1 with text untouched.
KAVRO_EXPORT int UPGRADE_get_cur_ver_str(std::string& text);
