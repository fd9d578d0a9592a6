// What the platform libraries log, for tests. A test that lists captured_log.cpp among its sources defines
// printLog in its own executable, where it takes the place of that of libcommon_yr.so.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace testsupport {

// Whether a line of that level contains every one of the parts. On failure the message shows all lines.
testing::AssertionResult loggedWith(int level, std::initializer_list<std::string> parts);

// Whether nothing was logged.
testing::AssertionResult nothingCaptured();

void clearCapturedLog();

}  // namespace testsupport
