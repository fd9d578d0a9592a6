#include "tools/upgradectl/package_view.h"

#include <json/value.h>

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <map>
#include <sstream>

#include "base/escaped_text.h"
#include "base/json_text.h"

namespace upgradectl {

namespace {

constexpr int kLabelColumns = 10;
constexpr int kCheckColumns = 20;
constexpr int kTypeColumns = 15;
constexpr int kSizeColumns = 10;
constexpr int kDigestColumns = 66;

std::string line(const std::string& label, const std::string& value) {
    std::ostringstream text;
    text << std::left << std::setw(kLabelColumns) << label << (value.empty() ? "-" : value) << "\n";
    return text.str();
}

std::string bytesText(std::uint64_t bytes) {
    return std::to_string(bytes) + " bytes";
}

std::string keyText(const kavro::package::Check& check) {
    return check.keyDescription.empty() ? "" : check.keyDescription + ", sha256 " + check.keyDigest;
}

std::string versionText(const kavro::package::Version& version) {
    return kavro::package::formatVersion(version) + " (hw " + std::to_string(version.hw) + ", mpu " +
           std::to_string(version.mpu) + ", mcu " + std::to_string(version.mcu) + ", bld " +
           std::to_string(version.bld) + ")";
}

// What lies between payload and trailer; none when the payload's length cannot be.
std::uint64_t gapBytes(const kavro::package::Trailer& trailer) {
    return kavro::package::kMaxPayloadBytes -
           std::min<std::uint64_t>(kavro::package::kMaxPayloadBytes, trailer.payloadBytes);
}

// The digests of the components, by their place among the entries: the first of a name is the one that was read.
std::map<std::size_t, std::string> digestsByEntry(const Inspection& inspection) {
    std::map<std::size_t, std::string> digests;
    for (const kavro::package::ComponentCheck& component : inspection.check.components) {
        const auto entry = std::find_if(
            inspection.entries.begin(), inspection.entries.end(),
            [&](const kavro::package::Entry& candidate) {
                return kavro::package::unpackedName(candidate) == component.name && candidate.type == "file";
            });
        if (entry != inspection.entries.end() && !component.sha256.empty()) {
            digests[static_cast<std::size_t>(entry - inspection.entries.begin())] = component.sha256;
        }
    }
    return digests;
}

std::string entriesText(const Inspection& inspection) {
    const std::map<std::size_t, std::string> digests = digestsByEntry(inspection);
    std::ostringstream text;
    const auto row = [&text](const std::string& type, const std::string& bytes, const std::string& digest,
                             const std::string& name) {
        text << std::left << std::setw(kTypeColumns) << type << std::right << std::setw(kSizeColumns) << bytes
             << "  " << std::left << std::setw(kDigestColumns) << digest << name << "\n";
    };
    row("type", "bytes", "sha256", "name");
    for (std::size_t index = 0; index < inspection.entries.size(); ++index) {
        const kavro::package::Entry& entry = inspection.entries[index];
        const auto digest = digests.find(index);
        row(entry.type, std::to_string(entry.bytes), digest == digests.end() ? "" : digest->second,
            kavro::escaped(entry.name));
    }
    return text.str();
}

// Whatever was checked, under its name.
std::vector<kavro::package::PartCheck> allChecks(const kavro::package::Check& check) {
    std::vector<kavro::package::PartCheck> all = check.parts;
    for (const kavro::package::ComponentCheck& component : check.components) {
        const bool good = component.fault.empty();
        all.push_back({component.name, good ? std::vector<std::string>() : std::vector{component.fault}});
    }
    return all;
}

std::string faultsText(const kavro::package::Check& check) {
    std::string text;
    for (const kavro::package::PartCheck& part : allChecks(check)) {
        for (const std::string& fault : part.faults) {
            text += line("fault", fault);
        }
    }
    return text;
}

std::string warningsText(const kavro::package::Check& check) {
    std::string text;
    for (const std::string& warning : check.warnings) {
        text += line("warning", warning);
    }
    return text;
}

// The faults, and then the warnings, apart from what stands before them.
std::string troublesText(const kavro::package::Check& check) {
    const std::string text = faultsText(check) + warningsText(check);
    return text.empty() ? "" : "\n" + text;
}

Json::Value jsonList(const std::vector<std::string>& texts) {
    Json::Value list(Json::arrayValue);
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

Json::Value jsonKey(const kavro::package::Check& check) {
    Json::Value key(Json::objectValue);
    key["description"] = check.keyDescription;
    key["sha256"] = check.keyDigest;
    return key;
}

Json::Value jsonVersion(const kavro::package::Version& version) {
    Json::Value numbers(Json::objectValue);
    numbers["hw"] = version.hw;
    numbers["mpu"] = version.mpu;
    numbers["mcu"] = version.mcu;
    numbers["bld"] = version.bld;
    return numbers;
}

// Null where the package brings no release list, and an epoch of null where that has none.
Json::Value jsonRelease(const kavro::package::Check& check) {
    if (!check.release) {
        return Json::nullValue;
    }
    Json::Value release(Json::objectValue);
    release["epoch"] =
        check.release->epoch ? Json::Value(Json::UInt(*check.release->epoch)) : Json::nullValue;
    release["notes"] = jsonList(check.release->notes);
    return release;
}

Json::Value jsonEntries(const Inspection& inspection) {
    const std::map<std::size_t, std::string> digests = digestsByEntry(inspection);
    Json::Value entries(Json::arrayValue);
    for (std::size_t index = 0; index < inspection.entries.size(); ++index) {
        Json::Value entry(Json::objectValue);
        entry["name"] = inspection.entries[index].name;
        entry["type"] = inspection.entries[index].type;
        entry["bytes"] = Json::UInt64(inspection.entries[index].bytes);
        const auto digest = digests.find(index);
        if (digest != digests.end()) {
            entry["sha256"] = digest->second;
        }
        entries.append(entry);
    }
    return entries;
}

// What inspect and verify have in common.
Json::Value jsonCommon(const std::string& package, const kavro::package::Check& check) {
    Json::Value root(Json::objectValue);
    root["package"] = package;
    root["in_order"] = check.inOrder();
    root["versions"] = jsonVersion(check.trailer.version);
    root["key"] = jsonKey(check);
    root["release"] = jsonRelease(check);
    Json::Value checks(Json::arrayValue);
    for (const kavro::package::PartCheck& part : allChecks(check)) {
        Json::Value row(Json::objectValue);
        row["name"] = part.name;
        row["ok"] = part.faults.empty();
        row["faults"] = jsonList(part.faults);
        checks.append(row);
    }
    root["checks"] = checks;
    root["warnings"] = jsonList(check.warnings);
    return root;
}

}  // namespace

std::string inspectionText(const Inspection& inspection) {
    const kavro::package::Trailer& trailer = inspection.check.trailer;
    return line("package", inspection.package) +
           line("payload",
                bytesText(trailer.payloadBytes) + ", md5 " + (trailer.md5.empty() ? "-" : trailer.md5)) +
           line("gap", bytesText(gapBytes(trailer))) + line("key", keyText(inspection.check)) +
           line("stamp", kavro::escaped(trailer.stamp)) + line("ident", kavro::escaped(trailer.ident)) +
           line("version", versionText(trailer.version)) + line("branch", kavro::escaped(trailer.branch)) +
           line("user", kavro::escaped(trailer.user)) + "\n" + entriesText(inspection) +
           troublesText(inspection.check);
}

std::string inspectionJson(const Inspection& inspection) {
    const kavro::package::Trailer& trailer = inspection.check.trailer;
    Json::Value root = jsonCommon(inspection.package, inspection.check);
    root["payload_bytes"] = trailer.payloadBytes;
    root["gap_bytes"] = Json::UInt64(gapBytes(trailer));
    root["md5"] = trailer.md5;
    root["key"]["pem"] = trailer.publicKey;
    root["stamp"] = trailer.stamp;
    root["ident"] = trailer.ident;
    root["branch"] = trailer.branch;
    root["user"] = trailer.user;
    root["files"] = jsonEntries(inspection);
    return kavro::jsonText(root) + "\n";
}

std::string verificationText(const kavro::package::Check& check) {
    std::ostringstream text;
    for (const kavro::package::PartCheck& part : allChecks(check)) {
        std::string verdict;
        for (const std::string& fault : part.faults) {
            verdict += (verdict.empty() ? "" : "; ") + fault;
        }
        text << std::left << std::setw(kCheckColumns) << part.name << (verdict.empty() ? "ok" : verdict)
             << "\n";
    }
    for (const std::string& warning : check.warnings) {
        text << std::left << std::setw(kCheckColumns) << "warning" << warning << "\n";
    }
    return text.str();
}

std::string verificationJson(const std::string& package, const kavro::package::Check& check) {
    return kavro::jsonText(jsonCommon(package, check)) + "\n";
}

}  // namespace upgradectl
