// What a library does wrong with its caller's memory is reported, although the caller is a test that was compiled without the
// sanitizer.
#include <gtest/gtest.h>

#include <memory>

#include "common/utility.h"

namespace {

TEST(SanitizerDeathTest, library_that_writes_behind_its_callers_buffer_is_reported) {
    constexpr unsigned long kRoom = 16;
    const auto buffer = std::make_unique<char[]>(kRoom);
    EXPECT_DEATH(COMMON_YR::readFileToBufferByOffset("/proc/self/exe", 0, 2 * kRoom, buffer.get()),
                 "AddressSanitizer: heap-buffer-overflow");
}

}  // namespace
