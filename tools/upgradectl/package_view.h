// What inspect and verify print of a package, for people and as JSON.
#pragma once

#include <string>
#include <vector>

#include "package/check.h"

namespace upgradectl {

struct Inspection {
    std::string package;  // as it was given
    kavro::package::Check check;
    std::vector<kavro::package::Entry> entries;  // in the archive's order
};

// Lines with line breaks. What stands in the package is escaped. docs/upgradectl.md shows both, and lists the members
// of the JSON objects, on which scripts depend.
std::string inspectionText(const Inspection& inspection);
std::string inspectionJson(const Inspection& inspection);

// One line for each thing that was checked: "ok" or what is wrong with it.
std::string verificationText(const kavro::package::Check& check);
std::string verificationJson(const std::string& package, const kavro::package::Check& check);

}  // namespace upgradectl
