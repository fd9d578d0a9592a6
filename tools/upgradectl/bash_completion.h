// A completion script for bash out of the description of the command line. For the build: no part of the tool.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace upgradectl {

// Completes commands, options and the values of options. Where a value may be a file, and where nothing is known of
// it, bash completes file names.
std::string bashCompletion(const CLI::App& app);

}  // namespace upgradectl
