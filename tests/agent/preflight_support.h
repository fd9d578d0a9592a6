// What the tests of the preflight share: a package, what was found, and a picture of the device.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "agent/preflight.h"
#include "tests/support/device.h"
#include "tests/support/test_package.h"
#include "upgrade/upgrade_api.h"

namespace agent_test {

inline constexpr const char* kPackage = "/tmp/release.pkg";

using Names = std::vector<std::string>;

inline Names namesOf(const std::vector<kavro::agent::Obstacle>& obstacles) {
    Names names;
    for (const kavro::agent::Obstacle& obstacle : obstacles) {
        names.push_back(obstacle.name);
    }
    return names;
}

// Every file and directory, with all by which a change of it shows: a directory's times tell of a file that came and
// went. The log is no state of the device.
using Picture = std::map<std::string, std::tuple<ino_t, mode_t, off_t, blkcnt_t, long, long>>;

inline Picture pictureOfDevice() {
    Picture picture;
    const auto add = [&picture](const std::string& path) {
        struct stat status = {};
        EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
        picture[path] = {status.st_ino,    status.st_mode,        status.st_size,
                         status.st_blocks, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
    };
    for (const char* directory : {"/config", "/firmware", "/raw", "/tmp", "/etc/kavro"}) {
        add(directory);
        for (auto entry = std::filesystem::recursive_directory_iterator(directory);
             entry != std::filesystem::recursive_directory_iterator(); ++entry) {
            const std::string path = entry->path();
            if (path == KAVRO_SOURCE_DIR || path == KAVRO_BINARY_DIR) {
                entry.disable_recursion_pending();  // of the host, which may show them below /tmp
            } else if (path != "/tmp/kavro.log") {
                add(path);
            }
        }
    }
    return picture;
}

// The paths that are not in both, or not alike.
inline Names differences(const Picture& left, const Picture& right) {
    Names paths;
    for (const auto* each : {&left, &right}) {
        for (const auto& [path, status] : *each) {
            const auto found = (each == &left ? right : left).find(path);
            if (found == (each == &left ? right : left).end() || found->second != status) {
                paths.push_back(path);
            }
        }
    }
    return paths;
}

// Looks at the device, which must be afterwards as it was before.
inline kavro::agent::Preflight look(const kavro::agent::PreflightOptions& options = {},
                                    const std::filesystem::path& package = kPackage) {
    UpgradeProc::getInstance();  // makes the message node's files, once in a process
    const Picture before = pictureOfDevice();
    auto result = kavro::agent::preflight(package, options);
    EXPECT_EQ(differences(before, pictureOfDevice()), Names{});
    EXPECT_TRUE(result.ok());
    return result.ok() ? std::move(result).value() : kavro::agent::Preflight();
}

// The names of all that is in the way.
inline Names obstacles(const kavro::agent::PreflightOptions& options = {},
                       const std::filesystem::path& package = kPackage) {
    return namesOf(look(options, package).obstacles);
}

// A release for a device with 1.104.7.2.
inline testsupport::TestPackage release() {
    return testsupport::TestPackage().setVersions(1, 105, 8, 3);
}

}  // namespace agent_test
