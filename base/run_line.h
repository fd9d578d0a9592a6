// The line of the device's log that tells each change of a run's stage or state:
//
//     2026-11-21 10:30:59.123 [warning] &&&&& upgrade [stage START], [result INPROGRESS_MPU] &&&&&
#pragma once

#include <optional>
#include <string>

namespace kavro {

// In the library's names.
struct RunLine {
    std::string stage;
    std::string state;
};

// Nothing when it is another line.
std::optional<RunLine> runLineIn(const std::string& line);

}  // namespace kavro
