// A record of the shell commands that the library under test runs.
//
// A test that links `shell_recorder` defines COMMON_YR::runSystem in its own executable. A command is
// recorded and then handed on to the real service, unless the test makes it fail.
#pragma once

#include <string>
#include <vector>

namespace fake {

// In order; whole command lines.
std::vector<std::string> commands();

// From now on commands that begin with prefix are not run but fail. The empty prefix stands for all of them.
void failCommands(const std::string& prefix);

// No record, and every command runs.
void resetCommands();

}  // namespace fake
