// What bench_device can measure. Each measurement reports samples and ends the program when it cannot be made. They need
// an emulated device; `rounds` is how many samples there are.
#pragma once

#include <string>

namespace bench {

// UPGRADE_main_proc_fun: its work time and where that goes.
void measureInstall(const std::string& package);
// From the request to give up to the end of the run, at moments all over the work of stages 1 to 5.
void measureGiveUp(const std::string& package, int rounds);
// Processor time of a run that only waits, in percent of one processor.
void measureWaiting(const std::string& package);
// Peak resident memory of a process that installs, in KiB.
void measureMemory(const std::string& package);

// cpFile against a command that copies, and sync; both make a copy beside that file.
void measureCopy(const std::string& source, int rounds, const std::string& command);
// chkFileMd5 against openssl md5.
void measureMd5(const std::string& path, int rounds);

// The slot's write with its read-back verification against dd and cmp, of the components in a directory.
void measureFlashWrite(const std::string& directory, int rounds);
// Both processors side by side against the longer of the two alone, until the last job's end.
void measureSideBySide(const std::string& directory, int rounds);

// From a stage change to its receipt by a subscriber in a process of its own, the 99th of a hundred.
void measureLatency(int changes);
// That subscriber: a line with the time of each message.
void subscribe();

}  // namespace bench
