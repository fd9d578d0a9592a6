// Manual pages out of the description of the command line. For the build: no part of the tool.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace upgradectl {

struct ManualTitle {
    std::string date;     // as 2026-11-21
    std::string version;  // of the project
};

// upgradectl(1), as roff.
std::string mainManualPage(const CLI::App& app, const ManualTitle& title);

// upgradectl-COMMAND(1) of one of its commands, with the commands of that.
std::string commandManualPage(const CLI::App& app, const CLI::App& command, const ManualTitle& title);

}  // namespace upgradectl
