// The device and the process as a long series of runs sees them: packages to install, what a run may and may not
// change on the device, and what it may not leave behind in the process. For programs that run on a twin.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace soak {

// What is wrong, in words; nothing when nothing is.
using Problems = std::vector<std::string>;

void require(Problems& problems, bool holds, const std::string& otherwise);

// A package of the twin's directory /tmp, made once.
struct Package {
    std::string path;
    int mcuVersion = 0;
    std::map<std::string, std::string> components;  // what a slot holds when it is installed, by partition
};
Package makePackage(const std::string& name, int mpu, int mcu, int bld);

std::string readText(const std::string& path);
bool exists(const std::string& path);
long sizeOf(const std::string& path);

// "a" or "b".
std::string runningSlot();
std::string otherSlot(const std::string& slot);
// The slot holds the package.
void requireContent(Problems& problems, const std::string& slot, const Package& package);

// What a restart does: the slot of the boot environment runs and is confirmed, and the run before is forgotten.
void startAnew(Problems& problems);

// Everything on the device that only flashing may change: partitions, boot environment, the microcontroller's flash
// memory, packages, and the files of /config but for the outcome of the last run.
class FlashState {
  public:
    FlashState();
    // Every difference since.
    void requireUnchanged(Problems& problems) const;

  private:
    std::map<std::string, std::string> stampOf;
};

// What a run must not add to: threads, descriptors, processes, and names in the device's directories.
class ProcessState {
  public:
    ProcessState();
    // What has ended may take its time to be gone.
    void requireUnchanged(Problems& problems, int patienceMs = 20000) const;

  private:
    std::vector<int> pids;
    std::vector<std::string> descriptors;
    unsigned long threads;
};
void requireKnownNames(Problems& problems);

// Memory over a series of runs. The first runs are warm-up; after them the mean over the last runs may exceed the mean
// over the first ones by less than a leak in every run would make.
class MemoryTrend {
  public:
    explicit MemoryTrend(unsigned long warmUpRuns);
    void sampleAfterRun();
    // Whether the series is long enough to tell.
    bool canTell() const { return last.size() == kMeanOver; }
    void requireFlat(Problems& problems) const;
    // "heap 1234 -> 1240 KiB, resident 9000 -> 9012 KiB"
    std::string text() const;

  private:
    struct Sample {
        double heap = 0;      // bytes in use
        double resident = 0;  // bytes
    };
    static constexpr unsigned long kMeanOver = 10;
    Sample firstMean() const;
    Sample lastMean() const;

    const unsigned long warmUp;
    unsigned long taken = 0;
    std::vector<Sample> first;
    std::vector<Sample> last;
};

// Results: a line of JSON for each run, on standard output, whatever becomes of the next one.
void report(const std::string& kind, const std::string& id, const std::string& outcome,
            const Problems& problems);
void keepStandardOutput();

}  // namespace soak
