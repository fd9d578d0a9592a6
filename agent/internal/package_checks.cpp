#include "agent/internal/package_checks.h"

#include <algorithm>
#include <string>
#include <vector>

#include "agent/internal/room.h"
#include "base/failure.h"
#include "base/path_relation.h"
#include "upgrade/upgrade_api.h"

namespace kavro::agent {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostFaults = 3;  // that are told one by one

constexpr const char* kTransferAgain =
    "transfer the package again; 'upgradectl verify PACKAGE' tells all that is wrong with it";
constexpr const char* kUseAnother = "use a package that 'upgradectl pack' made, and transfer it again";

// What the first thing that is wrong means, in the order in which a package is checked.
struct FaultMeaning {
    const char* part;
    const char* what;  // follows the package's name
    const char* next;
};

constexpr FaultMeaning kFaultMeanings[] = {
    {"trailer", "is damaged: its trailer cannot be read", kTransferAgain},
    {"key", "carries no key that its signatures can be checked with", kUseAnother},
    {"md5", "is damaged: the md5 of its payload is not that of its trailer", kTransferAgain},
    {"archive", "is whole, but could not be unpacked", kUseAnother},
    {"release", "is not the release that its list names", kUseAnother},
};
constexpr FaultMeaning kComponentMeaning = {
    "", "lacks a component, or has one with a signature that does not verify or of another release",
    kUseAnother};

Obstacle ofPackage(const fs::path& package, const std::string& what, const std::string& next) {
    return {"package", "the package '" + package.string() + "' " + what, next, false};
}

std::string faultsOf(const package::Check& check) {
    std::vector<std::string> faults = check.faults;
    for (const package::ComponentCheck& component : check.components) {
        if (!component.fault.empty()) {
            faults.push_back(component.fault);
        }
    }
    std::string text;
    for (std::size_t i = 0; i < std::min(faults.size(), kMostFaults); ++i) {
        text += (i == 0 ? "" : "; ") + faults[i];
    }
    if (faults.size() > kMostFaults) {
        text += "; and " + std::to_string(faults.size() - kMostFaults) + " more";
    }
    return text;
}

const FaultMeaning& meaningOf(const package::Check& check) {
    for (const FaultMeaning& meaning : kFaultMeanings) {
        for (const package::PartCheck& part : check.parts) {
            if (part.name == meaning.part && !part.faults.empty()) {
                return meaning;
            }
        }
    }
    return kComponentMeaning;
}

// Why the file is no package at all.
std::optional<Obstacle> fileObstacle(const fs::path& package) {
    std::error_code error;
    const fs::file_status status = fs::status(package, error);
    if (!fs::exists(status)) {
        return ofPackage(package, "is missing", "check the path");
    }
    if (!fs::is_regular_file(status)) {
        return ofPackage(package, "is no regular file", "give the package file");
    }
    const std::uintmax_t size = fs::file_size(package, error);
    if (error || size != package::kPackageBytes) {
        return ofPackage(package,
                         "has " + std::to_string(error ? 0 : size) + " bytes, a package has " +
                             std::to_string(package::kPackageBytes),
                         "transfer it again, whole");
    }
    return std::nullopt;
}

}  // namespace

// A run overwrites or removes these before it is done with the package it installs.
std::optional<Obstacle> workFileObstacle(const fs::path& package) {
    std::error_code ignored;
    if (!isBelow(package, UpgradeProc::storePart) &&
        !fs::equivalent(package, UpgradeProc::upgradePkg, ignored) &&
        !fs::equivalent(package, UpgradeProc::rollbackPkg, ignored)) {
        return std::nullopt;
    }
    return Obstacle{"work_file",
                    "the package '" + package.string() + "' is a file that the run itself replaces",
                    "copy it, for example to " + UpgradeProc::recvPkg + ", and install the copy", false};
}

PackageReading readPackage(const fs::path& package, const std::optional<fs::path>& trustedKey) {
    PackageReading reading;
    reading.obstacle = fileObstacle(package);
    if (reading.obstacle) {
        return reading;
    }
    const auto addEntry = [&reading](const package::Entry& entry) {
        reading.entryBytes += storageFor(entry.bytes);
    };
    Result<package::Check> checked = package::check(package, trustedKey, addEntry);
    if (checked.ok()) {
        reading.obstacle = obstacleOf(package, checked.value(), trustedKey);
        reading.check = std::move(checked).value();
    } else if (checked.error().code == ErrorCode::kUsage) {
        throw Failure(std::move(checked).error());
    } else {
        reading.obstacle = Obstacle{"package", checked.error().text, checked.error().next, false};
    }
    return reading;
}

// With a trusted key the package is refused for whatever is wrong with it; without one the first fault tells what to do.
std::optional<Obstacle> obstacleOf(const fs::path& package, const package::Check& check,
                                   const std::optional<fs::path>& trustedKey) {
    if (check.inOrder()) {
        return std::nullopt;
    }
    if (trustedKey) {
        return ofPackage(package, "was refused, nothing was flashed: " + faultsOf(check),
                         "use a whole package that is signed with the key of '" + trustedKey->string() +
                             "'; 'upgradectl verify' tells all that is wrong with this one");
    }
    const FaultMeaning& meaning = meaningOf(check);
    return ofPackage(package, std::string(meaning.what) + " (" + faultsOf(check) + ")", meaning.next);
}

}  // namespace kavro::agent
