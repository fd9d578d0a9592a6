// How much of what takes long a test program tries. `./dev test` is for every change and takes a selection, another one
// for each commit; `KAVRO_TEST_EXTENT=whole ./dev test` takes everything. See docs/contributing.md.
#pragma once

#include <cstdlib>
#include <random>
#include <string>

namespace testsupport {

inline bool isWholeExtent() {
    const char* const extent = std::getenv("KAVRO_TEST_EXTENT");
    return extent != nullptr && std::string(extent) == "whole";
}

// One of so many, below count: the commit decides, and what else is drawn is told apart by its number.
inline unsigned long drawn(unsigned long number, unsigned long count) {
    const char* const commit = std::getenv("KAVRO_TEST_COMMIT");
    std::string text = commit != nullptr ? commit : "";
    text += ' ' + std::to_string(number);
    std::seed_seq seed(text.begin(), text.end());
    return std::mt19937(seed)() % count;
}

}  // namespace testsupport
