// bench_make_package FILE PAYLOAD_BYTES MCU_VERSION: a package whose payload has about that size, of content that neither
// compresses nor has holes. Its other versions are those of a new twin, but for the main processor's.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>

#include "tests/support/test_package.h"

namespace {

constexpr unsigned long kSmallParts = 32768;        // what the archive has besides the two large components
constexpr unsigned long kLargestRoot = 96UL << 20;  // as its partition

// Leaves the header by which a component is known.
std::string withNoise(std::string component) {
    constexpr unsigned long kHeader = 4096;
    std::mt19937 random(1);
    for (unsigned long i = kHeader; i < component.size(); ++i) {
        component[i] = static_cast<char>(random());
    }
    return component;
}

void makePackage(const std::string& path, unsigned long payload, int mcu) {
    const unsigned long large = payload - kSmallParts;
    const unsigned long root = std::min(large * 3 / 4, kLargestRoot) / 4096 * 4096;
    testsupport::TestPackage package;
    package.setVersions(1, 105, mcu, 2);
    package.setComponent("ext4", withNoise(testsupport::rootFileSystem(root)));
    package.setComponent("Image", withNoise(testsupport::kernelImage(large - root)));
    package.writeTo(path);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        std::fprintf(stderr, "usage: bench_make_package FILE PAYLOAD_BYTES MCU_VERSION\n");
        return 2;
    }
    try {
        makePackage(arguments[1], std::strtoul(arguments[2], nullptr, 10), std::atoi(arguments[3]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_make_package: %s\n", error.what());
        return 1;
    }
    return 0;
}
