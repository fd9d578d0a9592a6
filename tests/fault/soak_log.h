// The errors of the device's log since they were forgotten last, the first of them, for the report on a run.
#pragma once

#include <string>

namespace soak {

void forgetErrors();
std::string loggedErrors();

}  // namespace soak
