#include "tools/upgradectl/report_place.h"

#include <string>

#include "agent/run.h"
#include "base/output_file.h"
#include "base/path_relation.h"
#include "tools/upgradectl/exit_code.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

Failure taken(const fs::path& report, const std::string& why) {
    return {ErrorCode::kUsage, "the report cannot be '" + report.string() + "', " + why,
            "give a file elsewhere, for example /tmp/report.html, and copy it away before the device is "
            "restarted"};
}

}  // namespace

void requirePlaceForReport(const fs::path& report, const std::vector<fs::path>& inputs) {
    kavro::agent::RunPlaces places = kavro::agent::placesOfRuns();
    for (const fs::path& directory : places.directories) {
        if (kavro::isBelow(report, directory)) {
            throw taken(report, "since " + directory.string() + " belongs to the device's upgrades");
        }
    }
    places.files.insert(places.files.end(), inputs.begin(), inputs.end());
    for (const fs::path& other : places.files) {
        if (!other.empty() && kavro::resolved(report) == kavro::resolved(other)) {
            throw taken(report, "which a run reads or writes itself");
        }
    }
    const kavro::OutputFile tried(report);
}

}  // namespace upgradectl
