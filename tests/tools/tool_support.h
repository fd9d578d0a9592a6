// What the tests of the tools share: a temporary directory, a set of components, keys, and running programs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace tool_test {

using TemporaryDirectory = kavro_test::TempDir;
using testsupport::Program;
using testsupport::ProgramResult;
using testsupport::runProgram;

// Six valid components, without the version list; the microcontroller's application carries version 8.
void makeComponents(const std::filesystem::path& directory);

// Makes private keys by the openssl tool.
void makeEcKey(const std::filesystem::path& path);
void makeRsaKey(const std::filesystem::path& path, int bits = 2048);

// Runs upgradectl to its end.
ProgramResult upgradectl(std::vector<std::string> arguments,
                         const std::vector<std::string>& environment = {});

}  // namespace tool_test
