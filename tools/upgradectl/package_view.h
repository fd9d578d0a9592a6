// What inspect and verify print of a package, for people and as JSON.
#pragma once

#include <string>
#include <vector>

#include "tools/upgradectl/package_check.h"

namespace upgradectl {

struct Inspection {
    std::string package;  // as it was given
    PackageCheck check;
    std::vector<ArchiveEntry> entries;  // in the archive's order
};

// Lines with line breaks. What stands in the package is escaped. docs/upgradectl.md shows both, and lists the members
// of the JSON objects, on which scripts depend.
std::string inspectionText(const Inspection& inspection);
std::string inspectionJson(const Inspection& inspection);

// One line for each thing that was checked: "ok" or what is wrong with it.
std::string verificationText(const PackageCheck& check);
std::string verificationJson(const std::string& package, const PackageCheck& check);

}  // namespace upgradectl
