// The error lines that the device's libraries log while a command runs, so that a failure can be explained
// without looking into the device's log.
//
// The tool defines printLog itself, in the place of the device's own, and hands every line on to that.
#pragma once

#include <string>
#include <vector>

namespace upgradectl {

// The first few error lines so far, without the place in the source that they begin with. Lines that only
// tell that an earlier failure ended a step are left out.
std::vector<std::string> loggedErrors();

}  // namespace upgradectl
