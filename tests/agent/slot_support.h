// What the boot environment says of a slot that a package was written to.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/tools/device_support.h"

namespace agent_test {

// The parts of a slot, by the components that they are written from.
inline const std::map<std::string, std::string> kSlotParts = {
    {"Image", "kernel"}, {"cv22_kavro_qz7.dtb", "dtb"}, {"ext4", "rootfs"}};

inline std::string sha256Of(const std::string& bytes) {
    testsupport::writeFile("/tmp/digested", bytes);
    return tool_test::runProgram({"sha256sum", "/tmp/digested"}).out.substr(0, 64);
}

inline void setBootEnvironment(const std::string& script) {
    testsupport::writeFile("/tmp/script", script);
    const auto saved =
        tool_test::runProgram({"fw_setenv", "-c", "/etc/kavro/fw_env.config", "-s", "/tmp/script"});
    ASSERT_EQ(saved.exitCode, 0) << saved.err;
}

// The slot is the one that starts, is not on trial, and holds what the package has.
inline void startFrom(const std::string& slot, const testsupport::TestPackage& package) {
    std::string script = "boot_slot=" + slot + "\nupgrade_available=0\n";
    for (const auto& [component, part] : kSlotParts) {
        const std::string bytes = package.files().at(component);
        script +=
            "slot_" + slot + "_" + part + "=" + std::to_string(bytes.size()) + " " + sha256Of(bytes) + "\n";
    }
    setBootEnvironment(script);
}

// The slot was written from the package, and awaits its activation.
inline void recordWrittenSlot(const std::string& slot, const testsupport::TestPackage& package) {
    std::string record = R"({ "slot": ")" + slot + "\"";
    for (const auto& [component, part] : kSlotParts) {
        const std::string bytes = package.files().at(component);
        record += ", \"" + part + R"(": { "bytes": )" + std::to_string(bytes.size()) + R"(, "sha256": ")" +
                  sha256Of(bytes) + "\" }";
    }
    testsupport::writeFile("/config/written_slot.json", record + " }");
}

// The versions in a package's trailer, which tell one package from another; "none" without a file.
inline std::string versionsOf(const std::string& path) {
    return testsupport::exists(path)
               ? tool_test::runProgram({"sh", "-c", "tail -c 4096 " + path + " | grep -aoE '00110[0-9]{7}'"})
                     .out
               : "none";
}

}  // namespace agent_test
