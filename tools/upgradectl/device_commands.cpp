#include "tools/upgradectl/device_commands.h"

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "agent/activation.h"
#include "agent/device_log.h"
#include "agent/flash_drivers.h"
#include "agent/start.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

// The device's own words are told along with a failure.
template <typename Value>
Value valueOrFailure(kavro::Result<Value> result) {
    if (!result.ok()) {
        kavro::Error error = std::move(result).error();
        error.details = kavro::agent::loggedErrors();
        throw Failure(error);
    }
    if constexpr (!std::is_void_v<Value>) {
        return std::move(result).value();
    }
}

void writeLines(const OwnOutput& output, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        output.writeLine(line);
    }
}

}  // namespace

void initDevice(const OwnOutput& output) {
    writeLines(output, valueOrFailure(kavro::agent::completeStart()));
    std::string packageDirectory;
    if (UPGRADE_init(packageDirectory) == 0) {
        output.writeLine("ready, packages go to " + packageDirectory);
        return;
    }
    kavro::valueOf(kavro::agent::checkFlashDrivers());
    throw Failure(ErrorCode::kOther, "the file system at /firmware or at /raw is missing or too small",
                  "mount them: /firmware needs 320 MiB at least, /raw 1024 MiB",
                  kavro::agent::loggedErrors());
}

void activate(const OwnOutput& output) {
    kavro::valueOf(kavro::agent::checkFlashDrivers());  // without them no package could be installed either
    output.writeLine(valueOrFailure(kavro::agent::activate()));
    output.writeLine("  next: restart the device");
}

void discard(const OwnOutput& output) {
    kavro::valueOf(kavro::agent::checkFlashDrivers());  // the microcontroller's is needed
    writeLines(output, valueOrFailure(kavro::agent::discard()));
}

void confirm(const OwnOutput& output) {
    valueOrFailure(kavro::agent::confirm());
    output.writeLine("the running slot is confirmed");
}

}  // namespace upgradectl
