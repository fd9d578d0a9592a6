// One process at a time changes the device: the lock that runs, activation and rollback take, and that whoever else
// changes the device takes, too.
//
// It is a flock(2) on the directory /config, so there is no file to be left behind: the kernel releases it when the process
// that holds it ends, however that happens, and it does not outlive a restart.
#pragma once

#include <string>

#include "common/export.h"

// The process that holds the lock.
struct UpgradeLockHolder {
    int pid = 0;          // 0 when the kernel does not tell, as of a process in another PID name space
    std::string command;  // its command line, its arguments separated by blanks; empty when unknown
};

// What became of an attempt to take it.
enum UpgradeLockResult : int {
    UPGRADE_LOCK_TAKEN = 0,
    UPGRADE_LOCK_HELD = -1,      // by another process
    UPGRADE_LOCK_NO_PLACE = -2,  // /config cannot be opened or locked: nothing protects the device
};

// Takes the lock, without waiting for it; holder, which may be null, is told who has it when it is held. The lock belongs to
// the process: where it has it already, on any thread, it takes it once more. Any thread. Blocks for 100 ms at most. Each
// UPGRADE_LOCK_TAKEN needs one UPGRADE_unlock_device.
KAVRO_EXPORT UpgradeLockResult UPGRADE_lock_device(UpgradeLockHolder* holder);

// Gives back what one UPGRADE_lock_device has taken; the last one releases the lock.
KAVRO_EXPORT void UPGRADE_unlock_device();

// Whether some process holds the lock, this one too. Takes nothing and waits for nothing.
KAVRO_EXPORT bool UPGRADE_is_device_locked(UpgradeLockHolder* holder);
