#include "agent/internal/byte_progress.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/cancellation.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

namespace fs = std::filesystem;

constexpr int kWhole = 100;

// What the stages contribute to the whole, in percent, by UpgradeStage: as in the library's own estimate.
constexpr std::array<int, UpgradeProc::kStageCount> kShares = {0, 7, 20, 3, 0, 0, 65, 5, 0};

// What the digest of the package takes of its stage; the rest is for the unpacking.
constexpr double kDigestPart = 0.25;

std::optional<double> sizeOf(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? std::optional<double>(status.st_size) : std::nullopt;
}

// A copy grows beside the file that it replaces.
std::optional<double> copied(const std::string& target) {
    return sizeOf(target + ".part");
}

double bytesIn(const std::string& directory) {
    double bytes = 0;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        bytes += sizeOf(entry->path().string()).value_or(0);
    }
    return bytes;
}

// How far this process has read a file that it has open; 0 when it has none.
double readOf(const std::string& path) {
    std::error_code error;
    for (fs::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        if (fs::read_symlink(entry->path(), gone) == path) {
            std::ifstream info("/proc/self/fdinfo/" + entry->path().filename().string());
            std::string name;
            double position = 0;
            return info >> name >> position ? position : 0;
        }
    }
    return 0;
}

// A field that the run's worker has stored atomically.
bool isSet(const bool& field) {
    bool value = false;
    __atomic_load(&field, &value, __ATOMIC_RELAXED);
    return value;
}

COMMON_YR::BoardProgress boardProgress() {
    COMMON_YR::BoardProgress progress;
    if (COMMON_YR::boardReadProgress != nullptr) {
        COMMON_YR::boardReadProgress(progress);
    }
    return progress;
}

bool isKnown(const COMMON_YR::BoardBytes& now, const COMMON_YR::BoardBytes& before) {
    return now.total > 0 && (now.done != before.done || now.total != before.total);
}

double partOf(const COMMON_YR::BoardBytes& bytes) {
    return static_cast<double>(bytes.done) / static_cast<double>(bytes.total);
}

}  // namespace

ByteProgress::ByteProgress(std::uint64_t contentBytes)
    : total(static_cast<double>(contentBytes)), before(boardProgress()) {}

int ByteProgress::percent(int stage, int state) const {
    const COMMON_YR::CancelHold hold;
    if (stage <= UPGRADE_STAGE_IDLE || stage >= UPGRADE_STAGE_DONE) {
        return stage == UPGRADE_STAGE_DONE ? kWhole : 0;
    }
    const std::optional<double> known = part(stage, state);
    if (!known) {
        // It tells of the stage that the library is in, which may be ahead.
        return UPGRADE_get_stage() == stage ? std::min(UPGRADE_get_progress(), kWhole - 1) : 0;
    }
    const auto index = static_cast<std::size_t>(stage);
    int base = 0;
    std::for_each(kShares.begin(), kShares.begin() + stage, [&base](int share) { base += share; });
    const double share = kShares.at(index) * std::clamp(*known, 0.0, 1.0);
    return std::min(base + static_cast<int>(std::floor(share)), kWhole - 1);
}

std::optional<double> ByteProgress::part(int stage, int state) const {
    if (stage == UPGRADE_STAGE_FLASHING_START) {
        return flashed();
    }
    if (total == 0) {
        return std::nullopt;
    }
    std::optional<double> bytes;
    switch (stage) {
        case UPGRADE_STAGE_INIT:
            bytes = state >= UPGRADE_STATE_START ? total : copied(UpgradeProc::upgradePkg);
            break;
        case UPGRADE_STAGE_START:
            return unpacked();
        case UPGRADE_STAGE_BACKUP_PACKAGE:
            bytes = state >= UPGRADE_STATE_FINISH ? total : copied(UpgradeProc::rollbackPkg);
            break;
        default:
            break;
    }
    return bytes ? std::optional<double>(*bytes / total) : std::nullopt;
}

std::optional<double> ByteProgress::unpacked() const {
    const double bytes = bytesIn(UpgradeProc::storePath);
    if (bytes > 0) {
        return kDigestPart + (1 - kDigestPart) * std::min(bytes / total, 1.0);
    }
    const double read = readOf(UpgradeProc::upgradePkg);
    return read > 0 ? std::optional<double>(kDigestPart * std::min(read / total, 1.0)) : std::nullopt;
}

// The two processors are written side by side: the one that lags behind decides.
std::optional<double> ByteProgress::flashed() const {
    const UPGRADE_FLAG_T& flag = UpgradeProc::getInstance()->upgradeFlag;
    const COMMON_YR::BoardProgress now = boardProgress();
    const bool knowsMpu = isKnown(now.mpu, before.mpu);
    const bool knowsMcu = isKnown(now.mcu, before.mcu);
    if (!knowsMpu && !knowsMcu) {
        return std::nullopt;
    }
    double least = 1;
    if (isSet(flag.mpu) || isSet(flag.bld)) {
        least = std::min(least, knowsMpu ? partOf(now.mpu) : 0);
    }
    if (isSet(flag.mcu)) {
        least = std::min(least, knowsMcu ? partOf(now.mcu) : 0);
    }
    return least;
}

}  // namespace kavro::agent
