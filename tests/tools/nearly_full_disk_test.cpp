// The tool on a device with 4 MiB for packages, most of which are taken.
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <string>

#include "tests/tools/device_support.h"
#include "tests/tools/json_support.h"
#include "tests/tools/powered_device.h"

namespace {

using namespace tool_test;
using testsupport::readFile;
using testsupport::writeFile;

constexpr const char* kFiller = "/firmware/filler";
constexpr unsigned long kPage = 4096;

unsigned long freeBytes() {
    struct statvfs fileSystem = {};
    EXPECT_EQ(statvfs("/firmware", &fileSystem), 0);
    return fileSystem.f_bavail * fileSystem.f_frsize;
}

// Leaves so much, or up to a page more.
void leave(unsigned long bytes) {
    std::filesystem::remove(kFiller);
    ASSERT_GT(freeBytes(), bytes + kPage);
    writeFile(kFiller, std::string((freeBytes() - bytes) / kPage * kPage, 'f'));
}

class NearlyFullDisk : public PoweredDevice {
  protected:
    void SetUp() override {
        PoweredDevice::SetUp();
        constexpr unsigned long kKernelBytes = 300 << 10;
        testsupport::TestPackage()
            .setVersions(1, 105, 8, 3)
            .setComponent("Image", std::string(kKernelBytes, 'k'))
            .writeTo(kPackage);
        writeFile("/firmware/current.pkg", "the running software");
        writeFile("/firmware/rollback.pkg", "the one before");
    }

    static void keepForRollback() {
        ASSERT_EQ(runProgram({"cp", "--sparse=always", kPackage, "/firmware/rollback.pkg"}).exitCode, 0);
    }

    // What the tool says that the installation needs.
    static unsigned long neededBytes() {
        leave(kPage);
        const Json::Value found = parsed(upgradectl({"check", "--json", kPackage}).out);
        EXPECT_EQ(found["obstacles"][0]["name"], "no_room");
        const std::string text = found["obstacles"][0]["text"].asString();
        return std::stoul(text.substr(text.rfind(' ')));
    }
};

TEST_F(NearlyFullDisk, refuses_an_installation_and_loses_nothing) {
    leave(64 * kPage);
    const unsigned long before = freeBytes();
    const ProgramResult result = upgradectl({"install", kPackage});
    EXPECT_EQ(result.exitCode, 3) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, "the file system at /firmware has room for ")) << result.err;
    EXPECT_EQ(readFile("/firmware/current.pkg"), "the running software");
    EXPECT_EQ(readFile("/firmware/rollback.pkg"), "the one before");
    EXPECT_FALSE(testsupport::exists("/firmware/upgrade.pkg"));
    EXPECT_FALSE(testsupport::exists(kLastRun));
    EXPECT_EQ(freeBytes(), before);
}

TEST_F(NearlyFullDisk, refuses_a_rollback_that_flashes_and_loses_nothing) {
    keepForRollback();
    const std::string kept = readFile("/firmware/rollback.pkg");
    leave(64 * kPage);
    const unsigned long before = freeBytes();
    const ProgramResult result = upgradectl({"rollback"});
    EXPECT_EQ(result.exitCode, 3) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, "the file system at /firmware has room for ")) << result.err;
    EXPECT_EQ(readFile("/firmware/current.pkg"), "the running software");
    EXPECT_TRUE(readFile("/firmware/rollback.pkg") == kept);
    EXPECT_EQ(freeBytes(), before);
}

TEST_F(NearlyFullDisk, refuses_a_rollback_whose_microcontroller_is_silent_and_loses_nothing) {
    std::filesystem::remove("/firmware/current.pkg");
    keepForRollback();
    mcu.stop();
    const ProgramResult result = upgradectl({"rollback"});
    EXPECT_EQ(result.exitCode, 3) << result.out << result.err;
    EXPECT_TRUE(contains(result.err, "the microcontroller does not answer")) << result.err;
    EXPECT_TRUE(testsupport::exists("/firmware/rollback.pkg"));
}

TEST_F(NearlyFullDisk, with_the_room_that_is_asked_for_takes_an_installation) {
    leave(neededBytes());
    const ProgramResult result = upgradectl({"install", kPackage});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
    EXPECT_EQ(readFile("/firmware/current.pkg"), "the running software");
}

TEST_F(NearlyFullDisk, with_the_room_that_is_asked_for_takes_a_package_without_holes) {
    leave(neededBytes());
    const ProgramResult filled = runProgram({"cp", "--sparse=never", kPackage, "/tmp/filled.pkg"});
    ASSERT_EQ(filled.exitCode, 0) << filled.err;
    const ProgramResult result = upgradectl({"install", "/tmp/filled.pkg"});
    EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
}

}  // namespace
