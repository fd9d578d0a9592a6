// What the tests of the tools share: a temporary directory, what packages are made of, and running programs.
#pragma once

#include <string>
#include <vector>

#include "tests/support/package_parts.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace tool_test {

using TemporaryDirectory = kavro_test::TempDir;
using testsupport::makeComponents;
using testsupport::makeEcKey;
using testsupport::makeRsaKey;
using testsupport::Program;
using testsupport::ProgramResult;
using testsupport::runProgram;

// Runs upgradectl to its end.
ProgramResult upgradectl(std::vector<std::string> arguments,
                         const std::vector<std::string>& environment = {});

}  // namespace tool_test
