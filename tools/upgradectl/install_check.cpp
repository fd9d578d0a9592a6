#include "tools/upgradectl/install_check.h"

#include <string>
#include <vector>

#include "agent/preflight.h"
#include "base/json_text.h"
#include "tools/upgradectl/exit_code.h"

namespace upgradectl {

namespace {

using kavro::agent::Obstacle;
using kavro::agent::Preflight;

Json::Value obstaclesJson(const std::vector<Obstacle>& obstacles) {
    Json::Value list = Json::arrayValue;
    for (const Obstacle& obstacle : obstacles) {
        Json::Value entry;
        entry["name"] = obstacle.name;
        entry["text"] = obstacle.text;
        entry["next"] = obstacle.next;
        entry["forceable"] = obstacle.forceable;
        list.append(entry);
    }
    return list;
}

std::string preflightJson(const CheckRequest& request, const Preflight& preflight) {
    Json::Value root;
    root["package"] = request.package.string();
    root["version"] = kavro::textOrNull(preflight.version);
    root["clear"] = preflight.clear();
    root["programs_microcontroller"] = preflight.programsMicrocontroller;
    root["obstacles"] = obstaclesJson(preflight.obstacles);
    root["overridden"] = obstaclesJson(preflight.overridden);
    return kavro::jsonText(root);
}

std::string preflightText(const CheckRequest& request, const Preflight& preflight) {
    std::string text = "'" + request.package.string() + "', " + preflight.version + ", can be installed";
    for (const Obstacle& obstacle : preflight.overridden) {
        text += "\n  by force: " + obstacle.text;
    }
    return text;
}

}  // namespace

void checkInstallation(const OwnOutput& output, const CheckRequest& request) {
    kavro::agent::PreflightOptions options;
    options.trustedKey = request.trustedKey;
    options.force = request.force;
    const Preflight preflight = kavro::valueOf(kavro::agent::preflight(request.package, options));
    if (request.json) {
        output.writeLine(preflightJson(request, preflight));
    } else if (preflight.clear()) {
        output.writeLine(preflightText(request, preflight));
    }
    if (!preflight.clear()) {
        throw Failure(kavro::agent::errorOf(preflight));
    }
}

}  // namespace upgradectl
