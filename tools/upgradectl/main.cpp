// upgradectl: parses the command line, runs the command and reports its failure.
#include <cstdio>
#include <string>

#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/tool_error.h"

namespace {

using upgradectl::ExitCode;
using upgradectl::ToolError;

void report(const ToolError& error) {
    std::fflush(stdout);  // where both go into one file, what was printed before comes first
    std::fprintf(stderr, "upgradectl: %s\n", error.what());
    for (const std::string& line : error.details()) {
        std::fprintf(stderr, "  device: %s\n", line.c_str());
    }
    std::fprintf(stderr, "  next: %s\n", error.next().c_str());
    for (const ToolError& other : error.further()) {
        report(other);
    }
}

ExitCode runCommandLine(int argc, char** argv) {
    upgradectl::Action chosen;
    if (const auto exitCode = upgradectl::parseCommandLine(argc, argv, chosen)) {
        return *exitCode;
    }
    chosen();
    return ExitCode::kOk;
}

ExitCode runReporting(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const ToolError& error) {
        report(error);
        return error.exitCode();
    } catch (const std::exception& error) {
        report({ExitCode::kOther, error.what(), "check the memory and the storage of this machine"});
        return ExitCode::kOther;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return static_cast<int>(runReporting(argc, argv));
}
