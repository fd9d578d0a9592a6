#include "tests/tools/tool_support.h"

namespace tool_test {

ProgramResult upgradectl(std::vector<std::string> arguments, const std::vector<std::string>& environment) {
    arguments.insert(arguments.begin(), UPGRADECTL);
    return runProgram(arguments, environment);
}

}  // namespace tool_test
