// Feeds a target with every file of the directories that are given, in the order of their names.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {

std::vector<std::string> filesIn(const char* directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int index = 1; index < argc; ++index) {
        for (const std::string& file : filesIn(argv[index])) {
            // Told before: the last one is to blame when the program ends here.
            std::printf("%s\n", file.c_str());
            (void)std::fflush(stdout);
            const std::string input = fuzz::readText(file);
            (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
