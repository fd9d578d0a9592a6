#include "agent/preflight.h"

#include <utility>

#include "agent/internal/device_checks.h"
#include "agent/internal/package_checks.h"
#include "agent/internal/release_checks.h"
#include "agent/internal/room.h"
#include "base/failure.h"
#include "package/version.h"

namespace kavro::agent {

namespace {

// Puts what was found where it belongs.
class Findings {
  public:
    Findings(Preflight& preflight, bool isForced) : result(preflight), force(isForced) {}

    void add(std::optional<Obstacle> obstacle) {
        if (obstacle) {
            auto& list = force && obstacle->forceable ? result.overridden : result.obstacles;
            list.push_back(std::move(*obstacle));
        }
    }
    void add(std::vector<Obstacle> obstacles) {
        for (Obstacle& obstacle : obstacles) {
            add(std::optional<Obstacle>(std::move(obstacle)));
        }
    }

  private:
    Preflight& result;
    const bool force;
};

bool isTrailerWhole(const package::Check& check) {
    return check.parts.front().faults.empty();
}

// The device belongs to whoever asks, and stands still meanwhile.
void checkQuietDevice(const PackageReading& reading, Preflight& result, Findings& findings) {
    if (reading.check && isTrailerWhole(*reading.check)) {
        const ReleaseOnDevice release = releaseOnDevice(reading.check->trailer.version);
        result.programsMicrocontroller = release.programsMicrocontroller;
        findings.add(microcontrollerObstacle(release));
        findings.add(slotObstacles());
        findings.add(failedTrialObstacle(result.version));
        findings.add(sameVersionObstacle(release));
        return;
    }
    findings.add(slotObstacles());
}

Preflight lookAt(const std::filesystem::path& path, const PreflightOptions& options) {
    Preflight result;
    Findings findings(result, options.force);
    findings.add(ownerObstacle());
    const std::optional<Obstacle> busy = options.ignoreLock ? std::nullopt : busyObstacle();
    findings.add(busy);
    findings.add(workFileObstacle(path));
    PackageReading reading = readPackage(path, options.trustedKey);
    findings.add(std::move(reading.obstacle));
    if (reading.check && isTrailerWhole(*reading.check)) {
        result.version = package::formatVersion(reading.check->trailer.version);
        if (!busy) {
            findings.add(roomObstacles({path, reading.check->trailer.payloadBytes, reading.entryBytes}));
        }
    }
    findings.add(writableObstacles());
    if (!busy) {
        checkQuietDevice(reading, result, findings);
    } else if (!result.version.empty()) {
        findings.add(failedTrialObstacle(result.version));
    }
    result.check = std::move(reading.check);
    return result;
}

}  // namespace

Result<Preflight> preflight(const std::filesystem::path& package, const PreflightOptions& options) {
    return resultOf([&] { return lookAt(package, options); });
}

Error errorOf(const Preflight& preflight) {
    const std::vector<Obstacle>& obstacles = preflight.obstacles;
    const bool onlyBusy = obstacles.size() == 1 && obstacles.front().name == kBusyName;
    const ErrorCode code = onlyBusy ? ErrorCode::kBusy : ErrorCode::kRefused;
    Error error = {code, obstacles.front().text, obstacles.front().next, {}, {}};
    for (std::size_t i = 1; i < obstacles.size(); ++i) {
        error.further.push_back({code, obstacles[i].text, obstacles[i].next, {}, {}});
    }
    return error;
}

}  // namespace kavro::agent
