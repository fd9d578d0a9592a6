// bench_device MEASUREMENT [ARGUMENT] [ROUNDS]: one measurement, on an emulated device. Samples go to standard output.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/measurements.h"
#include "bench/sample.h"

namespace {

struct Row {
    const char* name;
    void (*measure)(const char* argument, int rounds);
};

constexpr Row kMeasurements[] = {
    {"install", [](const char* package, int) { bench::measureInstall(package); }},
    {"give-up", [](const char* package, int rounds) { bench::measureGiveUp(package, rounds); }},
    {"waiting", [](const char* package, int) { bench::measureWaiting(package); }},
    {"memory", [](const char* package, int) { bench::measureMemory(package); }},
    {"copy", [](const char* path, int rounds) { bench::measureCopy(path, rounds, "cp"); }},
    {"copy-shared",
     [](const char* path, int rounds) { bench::measureCopy(path, rounds, "cp --reflink=never"); }},
    {"md5", [](const char* path, int rounds) { bench::measureMd5(path, rounds); }},
    {"flash", [](const char* directory, int rounds) { bench::measureFlashWrite(directory, rounds); }},
    {"side-by-side", [](const char* directory, int rounds) { bench::measureSideBySide(directory, rounds); }},
    {"latency", [](const char*, int rounds) { bench::measureLatency(rounds); }},
};

}  // namespace

int main(int count, char** arguments) {
    const char* const name = count > 1 ? arguments[1] : "";
    if (std::strcmp(name, "subscribe") == 0) {
        bench::subscribe();
        return 0;
    }
    bench::keepStandardOutput();
    for (const Row& row : kMeasurements) {
        if (std::strcmp(row.name, name) == 0) {
            row.measure(count > 2 ? arguments[2] : "", count > 3 ? std::atoi(arguments[3]) : 1);
            return 0;
        }
    }
    std::fprintf(stderr, "usage: bench_device MEASUREMENT [ARGUMENT] [ROUNDS]\n");
    return 2;
}
