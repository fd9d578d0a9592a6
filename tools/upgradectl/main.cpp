// upgradectl: parses the command line, runs the command and reports its failure.
#include <cstdio>
#include <string>

#include "agent/device_log.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/exit_code.h"

namespace {

using upgradectl::ExitCode;

void report(const kavro::Error& error) {
    std::fflush(stdout);  // where both go into one file, what was printed before comes first
    std::fprintf(stderr, "upgradectl: %s\n", error.text.c_str());
    for (const std::string& line : error.details) {
        std::fprintf(stderr, "  device: %s\n", line.c_str());
    }
    std::fprintf(stderr, "  next: %s\n", error.next.c_str());
    for (const kavro::Error& other : error.further) {
        report(other);
    }
}

ExitCode runCommandLine(int argc, char** argv) {
    upgradectl::Action chosen;
    if (const auto exitCode = upgradectl::parseCommandLine(argc, argv, chosen)) {
        return *exitCode;
    }
    kavro::agent::keepDeviceLog();
    chosen();
    return ExitCode::kOk;
}

ExitCode runReporting(int argc, char** argv) {
    try {
        return runCommandLine(argc, argv);
    } catch (const kavro::Failure& failure) {
        report(failure.error());
        return upgradectl::exitCodeOf(failure.error());
    } catch (const std::exception& exception) {
        report(kavro::unexpectedError(exception));
        return ExitCode::kOther;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return static_cast<int>(runReporting(argc, argv));
}
