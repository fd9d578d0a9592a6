#include "tools/upgradectl/report_place.h"

#include <string>

#include "base/output_file.h"
#include "base/path_relation.h"
#include "platform/config/platform_config.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

// A run wipes the work area, and the packages' directory when they do not fit into it; the others hold what the device
// needs to know of itself.
constexpr const char* kTakenDirectories[] = {"/raw", "/firmware", "/config", "/etc/kavro", "/dev"};

constexpr const char* kPublicKey = "/tmp/pubkey";  // of the package, for checking its signatures

Failure taken(const fs::path& report, const std::string& why) {
    return {ErrorCode::kUsage, "the report cannot be '" + report.string() + "', " + why,
            "give a file elsewhere, for example /tmp/report.html, and copy it away before the device is "
            "restarted"};
}

}  // namespace

void requirePlaceForReport(const fs::path& report, const std::vector<fs::path>& inputs) {
    for (const char* directory : kTakenDirectories) {
        if (kavro::isBelow(report, directory)) {
            throw taken(report, std::string("since ") + directory + " belongs to the device's upgrades");
        }
    }
    std::vector<fs::path> others = {UpgradeProc::tmpCfg, kPublicKey, kavro::readPlatformConfig().logFile};
    others.insert(others.end(), inputs.begin(), inputs.end());
    for (const fs::path& other : others) {
        if (!other.empty() && kavro::resolved(report) == kavro::resolved(other)) {
            throw taken(report, "which a run reads or writes itself");
        }
    }
    const kavro::OutputFile tried(report);
}

}  // namespace upgradectl
