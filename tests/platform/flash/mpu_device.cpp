#include "tests/platform/flash/mpu_device.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>
#include <sstream>

namespace testsupport {
namespace {

std::string withoutSpaces(const std::string& text) {
    std::string packed;
    for (const char character : text) {
        if (character != ' ' && character != '\n' && character != '\t') {
            packed += character;
        }
    }
    return packed;
}

bool isFile(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string sha256Of(const std::string& content) {
    const std::string path = "/tmp/digested";
    writeFile(path, content);
    return outputOf("sha256sum " + path).substr(0, 64);
}

}  // namespace

std::string contentOf(std::size_t size, unsigned seed) {
    std::string content(size, '\0');
    for (std::size_t index = 0; index < size; ++index) {
        content[index] = static_cast<char>(index * 13 + index / 251 + seed);
    }
    return content;
}

Release releaseOf(unsigned number) {
    return {contentOf(250001, number), contentOf(12345, number + 1), contentOf(3500007, number + 2),
            contentOf(100000, number + 3)};
}

std::string outputOf(const std::string& command) {
    FILE* const output = popen(command.c_str(), "re");
    if (output == nullptr) {
        ADD_FAILURE() << command << " cannot be started";
        return {};
    }
    std::string text;
    char block[4096];
    for (std::size_t count; (count = fread(block, 1, sizeof block, output)) > 0;) {
        text.append(block, count);
    }
    EXPECT_EQ(pclose(output), 0) << command << "\n" << text;
    return text;
}

void MpuDevice::SetUp() {
    DeviceTest::SetUp();
    if (HasFatalFailure()) {
        return;
    }
    for (const auto& [name, bytes] : kPartitionBytes) {
        if (isFile(kPartitions + name)) {
            writeSparse(kPartitions + name, bytes);
        }
        putPartition(name, contentOf(bytes, 200));
    }
    putRelease(releaseOf(1));
}

void MpuDevice::putRelease(const Release& release) {
    writeFile(kFirmware + "/Image", release.kernel);
    writeFile(kFirmware + "/cv22_kavro_qz7.dtb", release.deviceTree);
    writeFile(kFirmware + "/ext4", release.rootFileSystem);
    writeFile(kFirmware + "/bld_release.bin", release.bootloader);
}

long long MpuDevice::capacityOf(const std::string& partition) {
    const int fd = open((kPartitions + partition).c_str(), O_RDONLY | O_CLOEXEC);
    const off_t end = lseek(fd, 0, SEEK_END);
    close(fd);
    return end;
}

void MpuDevice::putPartition(const std::string& name, const std::string& content) {
    std::fstream file(kPartitions + name, std::ios::in | std::ios::out | std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    ASSERT_TRUE(file.good()) << "cannot write " << name;
}

std::string MpuDevice::partition(const std::string& name) {
    std::string content(kPartitionBytes.at(name), '\0');
    std::ifstream file(kPartitions + name, std::ios::binary);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return content;
}

Snapshot MpuDevice::partitions() {
    Snapshot snapshot;
    for (const auto& [name, bytes] : kPartitionBytes) {
        snapshot[name] = partition(name);
    }
    return snapshot;
}

void MpuDevice::overlay(Snapshot& snapshot, const std::string& name, const std::string& component) {
    snapshot[name].replace(0, component.size(), component);
}

void MpuDevice::overlaySlot(Snapshot& snapshot, const std::string& slot, const Release& release) {
    overlay(snapshot, "kernel_" + slot, release.kernel);
    overlay(snapshot, "dtb_" + slot, release.deviceTree);
    overlay(snapshot, "rootfs_" + slot, release.rootFileSystem);
}

Variables MpuDevice::environment() {
    Variables variables;
    std::istringstream lines(outputOf("fw_printenv -c " + kEnvironmentConfig));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t sign = line.find('=');
        variables[line.substr(0, sign)] = sign == std::string::npos ? "" : line.substr(sign + 1);
    }
    return variables;
}

Snapshot MpuDevice::environmentCopies() {
    return {{"env_a", readFile(kPartitions + "env_a")}, {"env_b", readFile(kPartitions + "env_b")}};
}

void MpuDevice::setEnvironment(const Variables& variables) {
    for (const auto& [name, value] : variables) {
        outputOf("fw_setenv -c " + kEnvironmentConfig + " " + name +
                 (value.empty() ? std::string() : " '" + value + "'"));
    }
}

void MpuDevice::damageEnvironmentCopy(const std::string& name) {
    std::string copy = readFile(kPartitions + name);
    copy.at(100) = static_cast<char>(copy[100] ^ 0x55);
    putPartition(name, copy);
}

std::pair<std::string, std::string> MpuDevice::copiesNewestFirst() {
    const auto counterOf = [](const std::string& name) {
        return static_cast<unsigned char>(readFile(kPartitions + name).at(4));
    };
    return counterOf("env_a") > counterOf("env_b") ? std::pair("env_a", "env_b")
                                                   : std::pair("env_b", "env_a");
}

Variables MpuDevice::slotVariables(const std::string& slot, const Release& release) {
    const auto content = [](const std::string& component) {
        return std::to_string(component.size()) + " " + sha256Of(component);
    };
    return {{"slot_" + slot + "_kernel", content(release.kernel)},
            {"slot_" + slot + "_dtb", content(release.deviceTree)},
            {"slot_" + slot + "_rootfs", content(release.rootFileSystem)}};
}

void MpuDevice::expectEnvironment(const Variables& expected) {
    const Variables found = environment();
    for (const auto& [name, value] : expected) {
        const auto variable = found.find(name);
        ASSERT_NE(variable, found.end()) << name;
        EXPECT_EQ(variable->second, value) << name;
    }
}

void MpuDevice::expectRecord(const std::string& slot, const Release& release) {
    const auto content = [](const std::string& component) {
        return R"({"bytes":)" + std::to_string(component.size()) + R"(,"sha256":")" + sha256Of(component) +
               R"("})";
    };
    EXPECT_EQ(withoutSpaces(readFile(kWrittenSlot)),
              R"({"dtb":)" + content(release.deviceTree) + R"(,"kernel":)" + content(release.kernel) +
                  R"(,"rootfs":)" + content(release.rootFileSystem) + R"(,"slot":")" + slot + R"("})");
}

void MpuDevice::editConfig(const std::string& from, const std::string& to) {
    std::string text = readFile(kConfig);
    const std::size_t position = text.find(from);
    ASSERT_NE(position, std::string::npos) << from << " in " << text;
    writeFile(kConfig, text.replace(position, from.size(), to));
}

int MpuDevice::install(UpgradeMpu& mpu, bool withLoader) {
    if (mpu.preUpgrade(kFirmware, withLoader, true) < 0) {
        return -1;
    }
    if (mpu.upgrade() < 0) {
        return -2;
    }
    return mpu.postUpgrade() < 0 ? -3 : 0;
}

}  // namespace testsupport
